// FrameMeter: whether a frame is black or still.
#pragma once

#include <cstdint>
#include <vector>

#include "host/config/wall.h"

namespace host {

struct FrameCondition {
  bool black = false;
  bool still = false;  // no change since the frame at which changes stopped
};

// A frame is black when all but a fiftieth of its luma is at most as bright as the black level, so
// that a logo or some noise makes no difference. It is still when the mean difference from a kept
// frame exceeds the still level in none of its planes; otherwise it is kept in place of that frame.
// So a slow fade counts as a change even if each step is too small to be seen.
//
// Only every other row is measured, for half the cost. Owned and called by one channel's reader; no
// lock.
class FrameMeter {
 public:
  // Uses the levels of black and freeze.
  explicit FrameMeter(const config::AlarmOptions& options);

  // A YV12 frame in studio range without padding; width and height are even.
  FrameCondition Measure(const std::uint8_t* frame, int width, int height);

 private:
  bool IsStill(const std::uint8_t* frame, int width, int height) const;
  void Keep(const std::uint8_t* frame, int width, int height);

  const std::uint8_t blackLuma_;
  const double stillDifference_;    // mean, in luma steps
  std::vector<std::uint8_t> kept_;  // its measured rows, plane by plane
};

}  // namespace host
