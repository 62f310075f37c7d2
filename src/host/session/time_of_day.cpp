#include "host/session/time_of_day.h"

#include <cstdlib>
#include <ratio>

#include "platform/os/system_time.h"
#include "util/text_codecs.h"

namespace host {
namespace {

constexpr Time kStep = kSecond / 4;
// Of what os::LocalTimeText gives: the day of the week.
constexpr std::size_t kWeekday = 4;

std::int64_t SecondsOf(Time time) {
  return std::chrono::floor<std::chrono::seconds>(
             std::chrono::duration<Time, std::ratio<1, kSecond>>(time))
      .count();
}

}  // namespace

std::string TimeOfDay::Text(Time time, Time now, SystemTime systemNow) {
  const Time present =
      std::chrono::duration_cast<std::chrono::duration<Time, std::ratio<1, kSecond>>>(
          systemNow.time_since_epoch())
          .count();
  std::int64_t difference = difference_;
  if (difference == kNone || std::llabs(present - now - difference) > kStep) {
    difference = present - now;
    difference_ = difference;
  }
  const os::LocalTime then = os::ToLocalTime(SecondsOf(difference + time));
  const os::LocalTime today = os::ToLocalTime(SecondsOf(present));
  if (then.month == today.month && then.day == today.day) {
    return qorp::StringFormat("%02d:%02d:%02d", then.hour, then.minute, then.second);
  }
  return os::LocalTimeText(SecondsOf(difference + time)).substr(kWeekday);
}

}  // namespace host
