// Drops frames to at most the rate of the canvas.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

#include "host/units.h"

namespace host {

// Of a source that is faster than the canvas one frame passes for each frame of the canvas: the
// one nearest to it, which is the one that the composer would choose among all. Frames start at
// multiples of their length, so whoever places the source on the wall's clock shifts it by whole
// frames. The length of the source's own frames is learnt from its timestamps; a source of the
// canvas's rate or slower passes whole, in spite of jitter. No lock: one thread.
class RateLimiter {
 public:
  explicit RateLimiter(Ratio canvasRate)
      : rate_(canvasRate), period_(FrameDuration(canvasRate)), step_(period_) {}

  // Times never decrease, except after Restart.
  bool Pass(Time start) {
    if (started_) {
      step_ += (std::min(start - last_, period_) - step_) / 4;
    }
    const std::int64_t frame = NearestFrame(start, rate_);
    const bool slow = step_ >= period_ * 9 / 10;
    const bool nearest = frame > served_ && start - FrameStart(frame, rate_) >= -step_ / 2;
    const bool passes = !started_ || slow || nearest;
    started_ = true;
    last_ = start;
    if (passes) {
      served_ = std::max(served_, frame);
    }
    return passes;
  }

  // The next frame passes.
  void Restart() {
    started_ = false;
    served_ = std::numeric_limits<std::int64_t>::min();
  }

 private:
  const Ratio rate_;
  const Time period_;
  Time step_;  // from frame to frame of the source, at most the period
  bool started_ = false;
  Time last_ = 0;
  std::int64_t served_ =
      std::numeric_limits<std::int64_t>::min();  // frame of the latest one passed
};

}  // namespace host
