// FrameScaler: a frame of a window in another size.
#pragma once

#include <cstdint>
#include <span>

#include "host/ffmpeg/handles.h"

namespace host {

// For the frames of a channel that were made before its window changed its size. Packed YV12, sizes
// in pixels, even. One thread.
class FrameScaler {
 public:
  // The whole frame, stretched: both windows have fitted the source into themselves. Throws
  // ffmpeg::Error.
  void Scale(std::span<const std::uint8_t> from, int width, int height, std::span<std::uint8_t> to,
             int toWidth, int toHeight);

 private:
  ffmpeg::Scaler scaler_;
  int width_ = 0;
  int height_ = 0;
  int toWidth_ = 0;
  int toHeight_ = 0;
};

}  // namespace host
