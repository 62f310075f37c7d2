// BoxScaler: frames at half or a quarter of their size.
#pragma once

#include <optional>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "host/channel/video/colour.h"

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
  void Scale(const AVFrame& frame, Plane y, Plane u, Plane v) const;

 private:
  BoxScaler(int toWidth, int toHeight) : width_(toWidth), height_(toHeight) {}

  int width_;
  int height_;
};

}  // namespace host
