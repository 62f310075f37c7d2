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
  // os::WaitAny, until the ticks are milliseconds beyond start; then kWaitTimeout, unless an object
  // is signalled.
  virtual std::uint32_t WaitAny(std::span<os::Waitable* const> objects, std::uint32_t start,
                                std::uint32_t milliseconds) {
    const std::uint32_t elapsed = Ticks() - start;
    return os::WaitAny(objects, elapsed < milliseconds ? milliseconds - elapsed : 0);
  }
};

}  // namespace qorp::log
