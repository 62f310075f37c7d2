// Thins pictures to at most the rate of the canvas.
#pragma once

#include <algorithm>
#include <optional>

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
    if (due_ && start < *due_ - tolerance_) {
      return false;
    }
    due_ = due_ ? std::max(*due_ + period_, start + period_ - tolerance_) : start + period_;
    return true;
  }

  // The next picture passes.
  void Restart() { due_.reset(); }

 private:
  Time period_;
  Time tolerance_;
  std::optional<Time> due_;
};

}  // namespace host
