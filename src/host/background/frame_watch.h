// FrameWatch: has the wall dealt with a background frame?
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "host/units.h"

namespace host {

// A frame is dealt with when it has come out of the composer, or when its buffer has come back
// because the frame was dropped. One frame is watched at a time. The driver expects and waits; the
// composition thread and whoever lets go of buffers report.
class FrameWatch {
 public:
  // buffer: the identity of the frame's buffer.
  void Expect(const void* buffer, Time start);
  void Delivered(Time start);
  void Returned(const void* buffer);
  // False when it takes longer than the limit.
  bool Wait(std::chrono::milliseconds limit);

 private:
  std::mutex lock_;
  std::condition_variable done_;
  const void* buffer_ = nullptr;  // guarded by lock_, as is all below
  Time start_ = 0;
  bool pending_ = false;
};

}  // namespace host
