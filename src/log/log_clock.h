// LogClock: all that the logger takes from time.
#pragma once

#include <cstdint>
#include <span>

#include "log/log_time.h"
#include "platform/os/ticks.h"
#include "platform/os/waitable.h"

namespace qorp::log {

// The system's own clocks; tests derive one that they move by hand. Any thread.
class LogClock {
 public:
  virtual ~LogClock() = default;

  virtual LogTime Now() { return os::CurrentWallTime(); }
  // Milliseconds; wraps.
  virtual std::uint32_t Ticks() { return os::TickCount(); }
  // os::WaitAny, its time-out being one of this clock.
  virtual std::uint32_t WaitAny(std::span<os::Waitable* const> objects,
                                std::uint32_t milliseconds) {
    return os::WaitAny(objects, milliseconds);
  }
};

}  // namespace qorp::log
