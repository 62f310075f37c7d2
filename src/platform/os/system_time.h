// The wall clock, the calendar, and millisecond counters that never go back but wrap.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace os {

// A moment of the wall clock, counted from 1970-01-01 UTC.
struct WallTime {
  std::int64_t seconds = 0;
  std::uint16_t milliseconds = 0;  // 0 to 999
};

WallTime CurrentWallTime();

// A calendar time, UTC.
struct SystemTime {
  std::uint16_t year = 1601;
  std::uint16_t month = 1;      // 1 to 12
  std::uint16_t dayOfWeek = 0;  // 0 is Sunday; ignored when converting
  std::uint16_t day = 1;        // 1 to 31
  std::uint16_t hour = 0;
  std::uint16_t minute = 0;
  std::uint16_t second = 0;
  std::uint16_t milliseconds = 0;
};

SystemTime CurrentSystemTime();

// 100 ns units since 1601-01-01; none for a date that does not exist or lies outside the years 1601
// to 30827.
std::optional<std::int64_t> SystemTimeToFileTime(const SystemTime& time);

// A moment in the local time zone.
struct LocalTime {
  int month;   // 1 to 12
  int day;     // 1 to 31
  int hour;    // 0 to 23
  int minute;  // 0 to 59
  int second;  // 0 to 60
};

LocalTime ToLocalTime(std::int64_t seconds);

// The first 19 characters of the local time as ctime gives it: "Mon Nov 16 09:43:14".
std::string LocalTimeText(std::int64_t seconds);

// Milliseconds since the system started, wrapping to 0 every 2^32 (49.7 days). Compare by unsigned
// difference.
std::uint32_t TickCount();

// The multimedia timer's milliseconds: the same kind of counter, with a start of its own and steps
// of 1 ms.
std::uint32_t MultimediaTimerMilliseconds();

}  // namespace os
