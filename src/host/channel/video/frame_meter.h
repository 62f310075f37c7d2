// FrameMeter: is a frame black, does it change?
#pragma once

#include <cstdint>
#include <vector>

#include "host/config/wall.h"

namespace host {

struct FrameCondition {
  bool black = false;
  bool still = false;  // no change from the frame at which it stopped to change
};

// A frame is black when all but a fiftieth of its luma is at most as bright as the black level:
// a logo or some noise does not make it a frame. It is still when in none of its planes the mean
// difference from a kept frame is more than the still level; a frame that differs more is kept
// in its place. A slow fade, each step of which is too small to be seen, thus counts as a change.
//
// Every other row is looked at: half the cost, and nothing that fills a frame fits between two
// rows. Owned and called by one channel's reader; no lock.
class FrameMeter {
 public:
  // The levels of black and of freeze count.
  explicit FrameMeter(const config::AlarmOptions& options);

  // A YV12 frame in studio range without padding; width and height are even.
  FrameCondition Measure(const std::uint8_t* picture, int width, int height);

 private:
  bool IsStill(const std::uint8_t* picture, int width, int height) const;
  void Keep(const std::uint8_t* picture, int width, int height);

  const std::uint8_t blackLuma_;
  const double stillDifference_;    // mean, in luma steps
  std::vector<std::uint8_t> kept_;  // its measured rows, plane by plane
};

}  // namespace host
