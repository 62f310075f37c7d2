// Scale frames: by exactly a half or a quarter (BoxScaler), and for a window that has changed its
// size (FrameScaler).
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

// Reduces 8-bit 4:2:0 frames by exactly two or four in both directions: each sample is the rounded
// mean of those that it replaces, as from the scaler's area filter, in a ninth of its time.
// Stateless; any thread.
class BoxScaler {
 public:
  // None for other sizes or pixel formats.
  static std::optional<BoxScaler> For(AVPixelFormat format, int width, int height, int toWidth,
                                      int toHeight);

  // The planes do not overlap with those of the frame.
  void Scale(const AVFrame& frame, PlaneView y, PlaneView u, PlaneView v) const;

 private:
  BoxScaler(int toWidth, int toHeight) : width_(toWidth), height_(toHeight) {}

  int width_;
  int height_;
};

// For frames of a channel that were made before its window changed its size. Packed YV12; sizes in
// pixels, even. One thread.
class FrameScaler {
 public:
  // Stretches the whole frame, with the bars that fit the source into the window. Throws
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
