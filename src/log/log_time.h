// LogTime, the timestamp of a message, and LogClock, all that the logger takes from time.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/os/system_time.h"
#include "platform/os/waitable.h"

namespace qorp::log {

using LogTime = os::WallTime;

// Since 1970-01-01 UTC.
inline std::int64_t MillisecondsOf(const LogTime& time) {
  return time.seconds * 1000 + time.milliseconds;
}

// Local time, 23 characters: "Mon Nov 16 09:43:14.123".
std::string FormatLogTime(const LogTime& time);

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
