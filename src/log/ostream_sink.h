// ostream_sink: plain lines on any output stream.
#pragma once

#include <ostream>

#include "log/i_log_sink.h"

namespace qorp::log {

// Lines "[Level 1] Mon Nov 16 09:43:14.123 text" of every level, each flushed. The stream belongs
// to somebody else and outlives the sink; the sink has no lock.
class ostream_sink final : public ILogSink {
 public:
  explicit ostream_sink(std::ostream& stream) : stream_(stream) {}

  void Write(std::int32_t level, const LogTime& time, const char* text) override;

 private:
  std::ostream& stream_;
};

}  // namespace qorp::log
