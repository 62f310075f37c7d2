#include "log/ostream_sink.h"

namespace qorp::log {

void ostream_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  stream_ << "[Level " << std::to_string(level) << "] " << FormatLogTime(time) << ' ' << text
          << std::endl;
}

}  // namespace qorp::log
