// ILogSink: where the logger's messages go.
#pragma once

#include <cstdint>

#include "log/log_time.h"

namespace qorp::log {

// Not owned by the logger. Called from the logger's worker thread, one message at a time, with no
// lock of the logger held: it may be slow, and it may throw, which loses this message for this sink
// only. The order of the operations is part of the interface.
class ILogSink {
 public:
  virtual ~ILogSink() = default;
  // text is one line, without its end.
  virtual void Write(std::int32_t level, const LogTime& time, const char* text) = 0;
};

}  // namespace qorp::log
