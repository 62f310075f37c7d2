#include "host/session/frame_watch.h"

#include <algorithm>
#include <utility>

namespace host {

void FrameWatch::Expect(const void* buffer, Time start) {
  const std::lock_guard guard(lock_);
  buffer_ = buffer;
  start_ = start;
  pending_ = true;
  expectedAt_ = std::chrono::steady_clock::now();
}

void FrameWatch::Delivered(Time start) {
  {
    const std::lock_guard guard(lock_);
    if (!pending_ || start != start_) {
      return;
    }
    pending_ = false;
    const std::chrono::nanoseconds took = std::chrono::steady_clock::now() - expectedAt_;
    ++timing_.frames;
    timing_.total += took;
    timing_.longest = std::max(timing_.longest, took);
  }
  done_.notify_all();
}

FrameWatch::Timing FrameWatch::TakeTiming() {
  const std::lock_guard guard(lock_);
  return std::exchange(timing_, Timing());
}

void FrameWatch::Returned(const void* buffer) {
  {
    const std::lock_guard guard(lock_);
    if (!pending_ || buffer != buffer_) {
      return;
    }
    pending_ = false;
  }
  done_.notify_all();
}

bool FrameWatch::Wait(std::chrono::milliseconds limit) {
  std::unique_lock guard(lock_);
  return done_.wait_for(guard, limit, [&] { return !pending_; });
}

}  // namespace host
