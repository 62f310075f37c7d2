// The lines of a log: LogTime is the timestamp of a message, LogClock the logger's source of time;
// ILogSink takes the messages of a logger, IPerfObserver the main figures of every performance
// report; LogHistory keeps the most recent lines in memory, and a log file has them as
//
//   42;Mon Nov 16 09:43:14.123;1763286194123;1;Composer audio/video #2 resynchronizes (-)
//   number;local time;milliseconds since 1970-01-01 UTC;level;text, which may itself hold ";"
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/os/mutex.h"
#include "platform/os/system_time.h"
#include "platform/os/thread.h"

namespace qorp::log {

using LogTime = os::WallTime;

// Since 1970-01-01 UTC.
inline std::int64_t MillisecondsOf(const LogTime& time) {
  return time.seconds * 1000 + time.milliseconds;
}

// Local time, 23 characters: "Mon Nov 16 09:43:14.123".
std::string FormatLogTime(const LogTime& time);

// The system's own clocks; tests derive one that they move by hand. Any thread.
class LogClock {
 public:
  virtual ~LogClock() = default;

  virtual LogTime Now() { return os::CurrentWallTime(); }
  // Milliseconds; wraps.
  virtual std::uint32_t Ticks() { return os::TickCount(); }
  // os::WaitAny, until the ticks are milliseconds beyond start; then kWaitTimeout, unless an object
  // is signalled.
  virtual std::uint32_t WaitAny(std::span<os::Waitable* const> objects, std::uint32_t start,
                                std::uint32_t milliseconds) {
    const std::uint32_t elapsed = Ticks() - start;
    return os::WaitAny(objects, elapsed < milliseconds ? milliseconds - elapsed : 0);
  }
};

struct LogHistoryEntry {
  std::int32_t level = 0;
  std::int64_t milliseconds = 0;  // since 1970-01-01 UTC
  std::string timeText;           // local time, "Mon Nov 16 09:43:14.123"
  std::string text;

  bool operator==(const LogHistoryEntry&) const = default;
};

// Lines by their running numbers; the lowest numbers are dropped when there are more than the
// capacity. Any thread; the lock guards the lines.
//
// A bound of a range that is negative counts from the newest line: -1 is the newest.
class LogHistory {
 public:
  explicit LogHistory(std::size_t capacity) : capacity_(capacity) {}

  // Replaces a line of that number.
  void Insert(std::int64_t number, LogHistoryEntry entry);
  void Clear();

  // Clamps the range to the lines that are there: true when any are left. Throws std::runtime_error
  // "History is empty" when there are no lines at all.
  bool GetRange(std::int64_t first, std::int64_t last, std::int64_t* outFirst,
                std::int64_t* outLast) const;
  // The lines of the range in the order of their numbers.
  std::vector<LogHistoryEntry> Get(std::int64_t first, std::int64_t last) const;

 private:
  using Lines = std::map<std::int64_t, LogHistoryEntry>;

  // Requires that there are lines.
  bool Resolve(std::int64_t* first, std::int64_t* last) const REQUIRES(lock_);

  const std::size_t capacity_;
  mutable os::Mutex lock_;
  Lines lines_ GUARDED_BY(lock_);
};

// For an operator: "[Level 1] Mon Nov 16 09:43:14.123 text", without the line end.
std::string FormatPlainLine(std::int32_t level, std::string_view timeText, std::string_view text);

// For a file, without the line end.
std::string FormatLogLine(std::int64_t number, const LogHistoryEntry& entry);

// True when line has at least the five fields.
bool IsLogLine(std::string_view line);

// The fields of a line for which IsLogLine is true. Numbers are decimal; what follows their digits
// is ignored. A field without a number throws std::invalid_argument "invalid stoll argument"
// ("invalid stoi argument" for the level), one beyond 64 bits (32 for the level) std::out_of_range
// "stoll argument out of range" ("stoi argument out of range").
std::int64_t ParseLogLineNumber(std::string_view line);
LogHistoryEntry ParseLogLine(std::string_view line);

// For readers of files that also hold rests of overwritten lines: none unless every field has
// exactly the form in which it is written.
struct NumberedLogLine {
  std::int64_t number = 0;
  LogHistoryEntry entry;

  bool operator==(const NumberedLogLine&) const = default;
};
std::optional<NumberedLogLine> ReadLogLine(std::string_view line);

// A message on its way to the sinks.
struct LogMessage {
  std::int32_t level = 0;
  std::string text;
  LogTime time;
};

// Not owned by the logger. Called from the logger's worker thread, one message at a time, with no
// lock of the logger held: it may be slow, and it may throw, which loses this message for this sink
// only. The order of the operations is part of the interface.
class ILogSink {
 public:
  virtual ~ILogSink() = default;
  // text is one line, without its end.
  virtual void Write(std::int32_t level, const LogTime& time, const char* text) = 0;
};

// Not owned by the logger; called on its worker thread. The order of the operations is part of the
// interface.
class IPerfObserver {
 public:
  virtual ~IPerfObserver() = default;
  // cpuPercent: the process's share of the whole machine; commitPercent: committed memory of the
  // machine; workingSetBytes: of the process.
  virtual void OnReport(std::uint32_t cpuPercent, std::uint32_t commitPercent,
                        std::uint64_t workingSetBytes, std::int32_t politicChoicesPerSecond) = 0;
};

}  // namespace qorp::log
