// Frames in another size: at exactly half or a quarter (BoxScaler), and those of a window that has
// changed its size (FrameScaler).
#pragma once

#include <cstdint>
#include <optional>
#include <span>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "host/channel/video/colour.h"
#include "host/ffmpeg/handles.h"

struct AVFrame;

namespace host {

// Reduces 8-bit 4:2:0 frames by exactly two or four in both directions: each sample is the mean of
// what it stands for, rounded, which is what the scaler's area filter gives as well, in a ninth of
// the time. Stateless; any thread.
class BoxScaler {
 public:
  // None where the sizes or the form of the frames are others.
  static std::optional<BoxScaler> For(AVPixelFormat format, int width, int height, int toWidth,
                                      int toHeight);

  // The planes do not overlap with those of the frame.
  void Scale(const AVFrame& frame, PlaneView y, PlaneView u, PlaneView v) const;

 private:
  BoxScaler(int toWidth, int toHeight) : width_(toWidth), height_(toHeight) {}

  int width_;
  int height_;
};

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
