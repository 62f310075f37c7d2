// SegmentCutter: says where a recording continues in its next file.
#pragma once

#include <cstdint>
#include <optional>

#include "host/units.h"

namespace host {

// How long the files of a recording may be; 0: without that limit.
struct SegmentLimits {
  Time length = 0;
  std::int64_t bytes = 0;
};

// Files are cut at keyframes only: at the first one at which a file has the length, or at which it
// would exceed the size if as much came until the next one as since the one before. Counts what the
// packets hold; a container adds little to it. One thread.
class SegmentCutter {
 public:
  explicit SegmentCutter(SegmentLimits limits) : limits_(limits) {}

  // A file begins with the keyframe of that time.
  void Begin(Time time) {
    start_ = time;
    bytes_ = bytesAtKey_ = 0;
  }
  void Add(int bytes) { bytes_ += bytes; }
  // A keyframe is to be written; the first one begins the first file. time: when it is shown.
  // frame: its length.
  bool CutsBefore(Time time, Time frame) {
    if (!start_) {
      Begin(time);
      return false;
    }
    const bool isLong = limits_.length > 0 && time - *start_ >= limits_.length - frame / 2;
    const bool isLarge = limits_.bytes > 0 && 2 * bytes_ - bytesAtKey_ > limits_.bytes;
    bytesAtKey_ = bytes_;
    return time > *start_ && (isLong || isLarge);
  }

 private:
  const SegmentLimits limits_;
  std::optional<Time> start_;
  std::int64_t bytes_ = 0;       // of this file
  std::int64_t bytesAtKey_ = 0;  // ... up to the latest keyframe
};

}  // namespace host
