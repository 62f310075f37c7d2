// RestartMonitor: tells from the rate of buffer-full events that the process should be restarted.
#pragma once

#include <cstdint>
#include <mutex>

namespace qorp::log {

// Judges the rate once for each tick: when it reached the threshold in as many ticks in a row as
// the limit says, a restart is needed, for good. Any thread; the lock guards everything and is
// never held with another.
class RestartMonitor {
 public:
  struct Rule {
    std::int32_t step = 1;              // what a tick adds to the time since the start
    std::int32_t warmUp = 6;            // until that time the rate is not judged
    std::int32_t deltaThreshold = 250;  // buffer-full events of all pins in one tick
    std::int32_t consecutiveLimit = 6;  // ticks
  };
  struct State {
    std::uint64_t lastDelta = 0;  // events in the last tick that was judged
    std::uint64_t consecutive = 0;
    bool needRestart = false;
  };

  explicit RestartMonitor(const Rule& rule) : rule_(rule) {}

  // One buffer-full event of any pin.
  void CountBufferFull();
  void Tick();
  State GetState() const;

 private:
  const Rule rule_;
  mutable std::mutex lock_;
  std::uint64_t count_ = 0;
  std::uint64_t previousCount_ = 0;
  std::uint64_t elapsed_ = 0;
  State state_;
};

}  // namespace qorp::log
