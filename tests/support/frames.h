// Frames for tests of the host: FFmpeg's, and packed YV12 buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "host/ffmpeg/handles.h"

namespace support {

struct Colour {
  int y = 16;
  int u = 128;
  int v = 128;
};

// A planar 8-bit 4:2:0 frame whose sample at (x, y) the function gives; its chroma is asked for at
// the top-left pixel of each block.
inline host::ffmpeg::Frame MakeFrame(int width, int height,
                                     const std::function<Colour(int x, int y)>& colourAt) {
  host::ffmpeg::Frame frame = host::ffmpeg::MakeFrame();
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = width;
  frame->height = height;
  av_frame_get_buffer(frame.get(), 0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const Colour colour = colourAt(x, y);
      frame->data[0][y * frame->linesize[0] + x] = static_cast<std::uint8_t>(colour.y);
      if (x % 2 == 0 && y % 2 == 0) {
        frame->data[1][y / 2 * frame->linesize[1] + x / 2] = static_cast<std::uint8_t>(colour.u);
        frame->data[2][y / 2 * frame->linesize[2] + x / 2] = static_cast<std::uint8_t>(colour.v);
      }
    }
  }
  return frame;
}

inline host::ffmpeg::Frame MakeFrame(int width, int height, Colour colour) {
  return MakeFrame(width, height, [colour](int, int) { return colour; });
}

// A packed YV12 frame with its own memory.
class Yv12Buffer {
 public:
  Yv12Buffer(int width, int height)
      : width_(width),
        height_(height),
        bytes_(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3 / 2) {}

  Colour At(int x, int y) const {
    const std::size_t luma = Luma();
    const std::size_t chroma = Index(x / 2, y / 2, width_ / 2);
    return {bytes_[Index(x, y, width_)], bytes_[luma + luma / 4 + chroma], bytes_[luma + chroma]};
  }
  void Set(int x, int y, Colour colour) {
    const std::size_t luma = Luma();
    const std::size_t chroma = Index(x / 2, y / 2, width_ / 2);
    bytes_[Index(x, y, width_)] = static_cast<std::uint8_t>(colour.y);
    bytes_[luma + luma / 4 + chroma] = static_cast<std::uint8_t>(colour.u);
    bytes_[luma + chroma] = static_cast<std::uint8_t>(colour.v);
  }
  void Fill(Colour colour) {
    for (int y = 0; y < height_; ++y) {
      for (int x = 0; x < width_; ++x) {
        Set(x, y, colour);
      }
    }
  }

  int width() const { return width_; }
  int height() const { return height_; }
  std::span<std::uint8_t> bytes() { return bytes_; }
  std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
  std::size_t Luma() const { return Index(0, height_, width_); }
  static std::size_t Index(int x, int y, int stride) {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(stride) +
           static_cast<std::size_t>(x);
  }

  int width_;
  int height_;
  std::vector<std::uint8_t> bytes_;
};

}  // namespace support
