// console_sink: coloured lines for a person who watches.
#pragma once

#include <iosfwd>
#include <mutex>

#include "log/i_log_sink.h"
#include "platform/os/console.h"

namespace qorp::log {

// Lines "Mon Nov 16 09:43:14.123 text" in the colour of their level: 0 bright red, 1 bright yellow,
// 2 light grey, 3 bright green. Without colour where the console has none.
class console_sink final : public ILogSink {
 public:
  // Messages of a greater level are left out. Writes to the standard error stream.
  explicit console_sink(std::int32_t maxLevel) : maxLevel_(maxLevel) {}
  // Writes to another open descriptor, not owned.
  console_sink(std::int32_t maxLevel, int descriptor) : maxLevel_(maxLevel), console_(descriptor) {}

  // Writes to a stream, not owned, in colour or not.
  console_sink(std::int32_t maxLevel, std::ostream& stream, bool colour)
      : maxLevel_(maxLevel), console_(stream, colour) {}

  void SetMaxLevel(std::int32_t maxLevel);
  void Write(std::int32_t level, const LogTime& time, const char* text) override;

 private:
  std::mutex lock_;
  std::int32_t maxLevel_;  // guarded by lock_
  os::Console console_;    // guarded by lock_
};

}  // namespace qorp::log
