// Where the planes of a packed YV12 frame lie.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qorp {

// A view of one 8-bit planar frame, not owned. The planes follow one another without padding:
//
//   plane    offset              bytes          row stride   covers
//   Y        0                   W*H            W            one sample for each pixel
//   V (Cr)   W*H                 (W/2)*(H/2)    W/2          one sample for 2x2 pixels
//   U (Cb)   W*H+(W/2)*(H/2)     (W/2)*(H/2)    W/2          one sample for 2x2 pixels
//
// The halves truncate, so an odd last column or row has no chroma of its own.
template <typename Sample>
struct Yv12Planes {
  Sample* data = nullptr;
  std::int32_t width = 0;   // pixels
  std::int32_t height = 0;  // pixels

  std::int32_t ChromaWidth() const { return width / 2; }
  std::int32_t ChromaHeight() const { return height / 2; }
  std::size_t LumaBytes() const { return static_cast<std::size_t>(width) * height; }
  std::size_t ChromaBytes() const {
    return static_cast<std::size_t>(ChromaWidth()) * ChromaHeight();
  }
  Sample* Y() const { return data; }
  Sample* V() const { return data + LumaBytes(); }
  Sample* U() const { return V() + ChromaBytes(); }

  // As FFmpeg takes planar 4:2:0: Y, U, V and nothing.
  std::array<Sample*, 4> YuvData() const { return {Y(), U(), V(), nullptr}; }
  std::array<int, 4> YuvStrides() const { return {width, ChromaWidth(), ChromaWidth(), 0}; }
};
using Yv12Picture = Yv12Planes<std::uint8_t>;
using ConstYv12Picture = Yv12Planes<const std::uint8_t>;

// Bytes of a YV12 frame of width x height pixels, exact for every size; buffers are checked against
// it.
constexpr std::int64_t PictureBytes(std::int32_t width, std::int32_t height) {
  const std::int64_t area = std::int64_t{width} * height;
  return area + area / 2;
}
// The same as media types and allocators announce it: in 32 bits that wrap around, halved towards
// zero.
constexpr std::int32_t AnnouncedPictureBytes(std::int32_t width, std::int32_t height) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(width) * 3U *
                                   static_cast<std::uint32_t>(height)) /
         2;
}

// Index, in the V and in the U plane of a frame `width` pixels wide, of the chroma sample that
// covers luma pixel (x, y).
constexpr std::ptrdiff_t ChromaIndex(std::int32_t x, std::int32_t y, std::int32_t width) {
  return x / 2 + static_cast<std::ptrdiff_t>(width / 2) * (y / 2);
}

}  // namespace qorp
