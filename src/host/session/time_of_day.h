// TimeOfDay: times of a running wall as an operator reads them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

#include "host/units.h"

namespace host {

// Converts by the present difference between the wall's clock and the time of day: the latter is
// set, the wall's may run at another rate, and stands still while the machine is suspended. The
// difference that is used follows in steps, so that a text does not flicker between two seconds.
// Any thread.
class TimeOfDay {
 public:
  using SystemTime = std::chrono::system_clock::time_point;

  // The local time "23:59:01"; with its date, "Nov 24 23:59:01", when that is not today's. now: the
  // wall's time at the moment systemNow.
  std::string Text(Time time, Time now, SystemTime systemNow);

 private:
  static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::min();

  std::atomic<std::int64_t> difference_{kNone};  // 100 ns since 1970 at the wall's time 0
};

}  // namespace host
