// qorp::Date: calendar times as 64-bit counts.
#pragma once

#include <cstdint>

#include "platform/os/system_time.h"
#include "util/exceptions.h"

namespace qorp {

class Date {
 public:
  using Exception = ExceptionTemplate<Date, TavrelException>;

  // 100 ns units since 1601-01-01. Throws Exception "SystemTimeToFileTime failed" for a date that
  // does not exist or cannot be expressed.
  static std::int64_t ToFileTime(const os::SystemTime& time);
};

}  // namespace qorp
