// Ends a blocking call of FFmpeg when its time is over or its caller is cancelled.
#pragma once

#include <atomic>
#include <chrono>

namespace host::ffmpeg {

// FFmpeg asks repeatedly during a blocking call whether to stop. Owned by the reader or writer
// whose context has Callback; Arm, Disarm and Follow are called by its thread, Cancel by any
// thread, the callback by FFmpeg's threads. Atomics only, no lock.
class IoDeadline {
 public:
  using Clock = std::chrono::steady_clock;

  // From now on, calls end when those of the other deadline do, which outlives them: a context
  // keeps the deadline that it was opened with.
  void Follow(IoDeadline& other) { other_.store(&other, std::memory_order_release); }

  // The following calls may take this long together.
  void Arm(std::chrono::milliseconds limit) {
    expired_.store(false, std::memory_order_relaxed);
    deadline_.store((Clock::now() + limit).time_since_epoch().count(), std::memory_order_relaxed);
  }
  void Disarm() { deadline_.store(kNever, std::memory_order_relaxed); }
  // Permanent: every call from now on ends at once.
  void Cancel() { cancelled_.store(true, std::memory_order_relaxed); }

  // For AVIOInterruptCB, with the deadline as the opaque pointer: 1 to stop.
  static int Callback(void* deadline) {
    return static_cast<IoDeadline*>(deadline)->ShouldStop() ? 1 : 0;
  }

  bool ShouldStop() {
    if (cancelled()) {
      return true;
    }
    if (IoDeadline* const other = other_.load(std::memory_order_acquire)) {
      return other->ShouldStop();
    }
    if (Clock::now().time_since_epoch().count() < deadline_.load(std::memory_order_relaxed)) {
      return false;
    }
    expired_.store(true, std::memory_order_relaxed);
    return true;
  }

  bool cancelled() const { return cancelled_.load(std::memory_order_relaxed); }
  // A call has been ended because its time was over, since the latest Arm.
  bool expired() const { return expired_.load(std::memory_order_relaxed); }

 private:
  static constexpr Clock::rep kNever = Clock::duration::max().count();

  std::atomic<Clock::rep> deadline_{kNever};
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> expired_{false};
  std::atomic<IoDeadline*> other_{nullptr};
};

}  // namespace host::ffmpeg
