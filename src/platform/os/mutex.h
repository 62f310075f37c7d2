// A mutex for sections of a few instructions.
#pragma once

#include <mutex>

namespace os {

// Looks for a moment before it lets the system suspend the thread: where the holder is about to let
// go, suspending and waking cost many times the wait. Locks as std::mutex does; any thread.
class BriefMutex {
 public:
  void lock() {
    for (int look = 0; look < kLooks; ++look) {
      if (mutex_.try_lock()) {
        return;
      }
      Relax();
    }
    mutex_.lock();
  }
  bool try_lock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  static constexpr int kLooks = 50;

  static void Relax() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }

  std::mutex mutex_;
};

}  // namespace os
