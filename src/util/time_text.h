// UTC timestamps as text for programs.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace qorp {

// "2026-11-25T01:02:03.456Z". Years 0 to 9999.
inline std::string TimestampUtc(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto moment = floor<milliseconds>(time);
  const auto day = floor<days>(moment);
  const year_month_day date{day};
  const hh_mm_ss clock{moment - day};
  char text[64];
  std::snprintf(
      text, sizeof(text), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return text;
}

// The same, or without its fraction; none for anything else.
inline std::optional<std::chrono::system_clock::time_point> ParseTimestampUtc(
    const std::string& text) {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  double second = 0;
  char end = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%6lf%c", &year, &month, &day, &hour, &minute,
                  &second, &end) != 7 ||
      end != 'Z' || second < 0 || second >= 61 || hour < 0 || hour > 23 || minute < 0 ||
      minute > 59) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) {
    return std::nullopt;
  }
  return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
         std::chrono::milliseconds(static_cast<std::int64_t>(second * 1000));
}

}  // namespace qorp
