// WallClock: the time of a running wall.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "host/units.h"

namespace host {

// Runs from 0 with the system's steady clock once it is started. Any thread may ask and wait.
class WallClock {
 public:
  void Start() {
    const std::lock_guard guard(lock_);
    start_ = Steady::now();
    stopped_ = false;
  }
  // Ends every wait, until the next Start.
  void Stop() {
    {
      const std::lock_guard guard(lock_);
      stopped_ = true;
    }
    stopping_.notify_all();
  }
  Time Now() const {
    const std::lock_guard guard(lock_);
    return std::chrono::duration_cast<Units>(Steady::now() - start_).count();
  }
  // False when the clock was stopped first.
  bool WaitUntil(Time time) {
    std::unique_lock guard(lock_);
    return !stopping_.wait_until(guard, start_ + Units(time), [&] { return stopped_; });
  }

 private:
  using Steady = std::chrono::steady_clock;
  using Units = std::chrono::duration<Time, std::ratio<1, 10'000'000>>;

  mutable std::mutex lock_;
  std::condition_variable stopping_;
  Steady::time_point start_ = Steady::now();  // guarded by lock_
  bool stopped_ = false;                      // guarded by lock_
};

}  // namespace host
