// The time stamp of a message.
#pragma once

#include <cstdint>
#include <string>

#include "platform/os/system_time.h"

namespace qorp::log {

using LogTime = os::WallTime;

// Since 1970-01-01 UTC.
inline std::int64_t MillisecondsOf(const LogTime& time) {
  return time.seconds * 1000 + time.milliseconds;
}

// Local time, 23 characters: "Mon Nov 16 09:43:14.123".
std::string FormatLogTime(const LogTime& time);

}  // namespace qorp::log
