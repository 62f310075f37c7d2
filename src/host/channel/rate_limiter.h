// Thins pictures to at most the rate of the canvas.
#pragma once

#include <algorithm>

#include "host/units.h"

namespace host {

// A picture passes when it is due; each passed picture puts the next one a canvas frame further on.
// A quarter of a frame of tolerance lets the pictures of a source with the canvas's own rate pass
// in spite of jitter; what a picture came early is taken off the next one's time, so the mean rate
// never exceeds the canvas's. A slower source passes whole. No lock: one thread.
class RateLimiter {
 public:
  explicit RateLimiter(Ratio canvasRate)
      : period_(FrameDuration(canvasRate)), tolerance_(period_ / 4) {}

  // Times never decrease, except after Restart.
  bool Pass(Time start) {
    if (started_ && start < due_ - tolerance_) {
      return false;
    }
    due_ = started_ ? std::max(due_ + period_, start) : start + period_;
    started_ = true;
    return true;
  }

  // The next picture passes.
  void Restart() { started_ = false; }

 private:
  Time period_;
  Time tolerance_;
  bool started_ = false;
  Time due_ = 0;
};

}  // namespace host
