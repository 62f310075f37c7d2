#include <array>
#include <chrono>
#include <ctime>

#include "platform/os/system_time.h"

namespace os {
namespace {

constexpr std::int64_t kUnitsPerMillisecond = 10000;
constexpr std::int64_t kUnitsPerSecond = 1000 * kUnitsPerMillisecond;
constexpr std::int64_t kSecondsPerDay = 86400;

std::tm BrokenDown(std::int64_t seconds) {
  const auto time = static_cast<time_t>(seconds);
  std::tm local{};
  // A year that the calendar cannot express gives the first day of 1900.
  if (::localtime_r(&time, &local) == nullptr) {
    local = {};
    local.tm_mday = 1;
  }
  return local;
}

}  // namespace

WallTime CurrentWallTime() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return {now.tv_sec, static_cast<std::uint16_t>(now.tv_nsec / 1000000)};
}

SystemTime CurrentSystemTime() {
  const WallTime now = CurrentWallTime();
  const auto time = static_cast<time_t>(now.seconds);
  std::tm utc{};
  ::gmtime_r(&time, &utc);
  return {
      static_cast<std::uint16_t>(utc.tm_year + 1900), static_cast<std::uint16_t>(utc.tm_mon + 1),
      static_cast<std::uint16_t>(utc.tm_wday),        static_cast<std::uint16_t>(utc.tm_mday),
      static_cast<std::uint16_t>(utc.tm_hour),        static_cast<std::uint16_t>(utc.tm_min),
      static_cast<std::uint16_t>(utc.tm_sec),         now.milliseconds};
}

std::optional<std::int64_t> SystemTimeToFileTime(const SystemTime& time) {
  using std::chrono::day;
  using std::chrono::month;
  using std::chrono::sys_days;
  using std::chrono::year;
  const std::chrono::year_month_day date(year(time.year), month(time.month), day(time.day));
  // 30827 is the last whole year that fits into 63 bits.
  if (time.year < 1601 || time.year > 30827 || !date.ok() || time.hour > 23 || time.minute > 59 ||
      time.second > 59 || time.milliseconds > 999) {
    return std::nullopt;
  }
  constexpr sys_days kEpoch(std::chrono::year_month_day(year(1601), month(1), day(1)));
  const std::int64_t days = (sys_days(date) - kEpoch).count();
  const std::int64_t seconds =
      days * kSecondsPerDay + time.hour * 3600L + time.minute * 60L + time.second;
  return seconds * kUnitsPerSecond + time.milliseconds * kUnitsPerMillisecond;
}

LocalTime ToLocalTime(std::int64_t seconds) {
  const std::tm local = BrokenDown(seconds);
  return {local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec};
}

std::string LocalTimeText(std::int64_t seconds) {
  const std::tm local = BrokenDown(seconds);
  constexpr std::size_t kLength = 19;
  std::array<char, 64> text{};
  // asctime, unlike strftime, does not depend on the locale.
  ::asctime_r(&local, text.data());
  return std::string(text.data(), kLength);
}

namespace {

std::uint32_t Milliseconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(now.tv_sec) * 1000 +
                                    static_cast<std::uint64_t>(now.tv_nsec) / 1000000);
}

}  // namespace

std::uint32_t TickCount() {
  return Milliseconds(CLOCK_BOOTTIME);
}

std::uint32_t MultimediaTimerMilliseconds() {
  return Milliseconds(CLOCK_MONOTONIC);
}

}  // namespace os
