// FrameWatch: has the wall dealt with a background frame?
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "host/units.h"

namespace host {

// A frame is dealt with when it has come out of the composer, or when its buffer has come back
// because the frame was dropped. One frame is watched at a time. The driver expects and waits; the
// composition thread and whoever releases buffers report. Any thread may ask how long the frames
// took.
class FrameWatch {
 public:
  // From going into the composer to coming out of it.
  struct Timing {
    std::uint64_t frames = 0;
    std::chrono::nanoseconds total{0};
    std::chrono::nanoseconds longest{0};
    std::chrono::nanoseconds mean() const {
      return frames > 0 ? total / static_cast<std::int64_t>(frames) : total;
    }
  };

  // buffer: the identity of the frame's buffer.
  void Expect(const void* buffer, Time start);
  void Delivered(Time start);
  void Returned(const void* buffer);
  // False when it takes longer than the limit.
  bool Wait(std::chrono::milliseconds limit);
  // Of the frames since it was asked last.
  Timing TakeTiming();

 private:
  std::mutex lock_;
  std::condition_variable done_;
  const void* buffer_ = nullptr;  // guarded by lock_, as is all below
  Time start_ = 0;
  bool pending_ = false;
  std::chrono::steady_clock::time_point expectedAt_;
  Timing timing_;
};

}  // namespace host
