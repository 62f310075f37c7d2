#include "log/log_time.h"

#include "util/string_format.h"

namespace qorp::log {

std::string FormatLogTime(const LogTime& time) {
  return StringFormat("%.19s.%03d", os::LocalTimeText(time.seconds).c_str(), time.milliseconds);
}

}  // namespace qorp::log
