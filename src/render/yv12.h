// YV12 pictures and the primitives that write into them: copy, fill, blend.
#pragma once

#include <cstddef>
#include <cstdint>

// One 8-bit planar picture, seen but not owned. The planes lie behind one another without padding:
//
//   plane    offset              bytes          row stride   covers
//   Y        0                   W*H            W            one sample for each pixel
//   V (Cr)   W*H                 (W/2)*(H/2)    W/2          one sample for 2x2 pixels
//   U (Cb)   W*H+(W/2)*(H/2)     (W/2)*(H/2)    W/2          one sample for 2x2 pixels
//
// Samples are in studio range (luma 16 to 235, chroma 16 to 240, neutral chroma 128); nothing here
// clamps. The halves truncate, so an odd last column or row has no chroma of its own.
struct Yv12Picture {
  std::uint8_t* data = nullptr;
  std::int32_t width = 0;   // pixels
  std::int32_t height = 0;  // pixels

  std::int32_t ChromaWidth() const { return width / 2; }
  std::int32_t ChromaHeight() const { return height / 2; }
  std::size_t LumaBytes() const { return static_cast<std::size_t>(width) * height; }
  std::size_t ChromaBytes() const {
    return static_cast<std::size_t>(ChromaWidth()) * ChromaHeight();
  }
  std::uint8_t* Y() const { return data; }
  std::uint8_t* V() const { return data + LumaBytes(); }
  std::uint8_t* U() const { return V() + ChromaBytes(); }
};

enum class Plane { Y, V, U };

// Where the chroma sample that covers luma pixel (x, y) lies in the V and in the U plane of a
// picture `width` pixels wide.
constexpr std::ptrdiff_t ChromaIndex(std::int32_t x, std::int32_t y, std::int32_t width) {
  return x / 2 + static_cast<std::ptrdiff_t>(width / 2) * (y / 2);
}

// s over d with opacity a (0 to 255): (s*a + d*(255-a)) / 255, rounded to nearest, halves up.
constexpr std::uint8_t Blend255(std::uint8_t d, std::uint8_t s, std::uint8_t a) {
  const std::uint32_t t = s * std::uint32_t{a} + d * (255u - a) + 127u;
  return static_cast<std::uint8_t>((t + (t >> 8) + 1) >> 8);
}

// Asks for the samples of a row that is about to be written.
inline void PrefetchRow(const std::uint8_t* row, std::int64_t bytes) {
  constexpr std::int64_t kCacheLine = 64;
  for (std::int64_t i = 0; i < bytes; i += kCacheLine) {
    __builtin_prefetch(row + i, 1);
  }
}

// Copies the w x h pixels of the YV12 picture src to (x, y) of the canvas, 1:1, as far as they lie
// inside it. x and y are even. Of an odd number of visible rows the last one keeps the canvas's
// chroma.
void CopyPictureClipped(const std::uint8_t* src, std::int32_t w, std::int32_t h,
                        const Yv12Picture& canvas, std::int32_t x, std::int32_t y);

// Sets the samples of one plane that cover the w x h luma pixels at (x, y) to value. What lies
// outside the canvas is not touched. A chroma sample that is shared with pixels outside the
// rectangle is set as well.
void FillPlaneRect(const Yv12Picture& canvas, Plane plane, std::int64_t x, std::int64_t y,
                   std::int32_t w, std::int32_t h, std::uint8_t value);
