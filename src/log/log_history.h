// LogHistory: the most recent lines of a log, in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qorp::log {

struct LogHistoryEntry {
  std::int32_t level = 0;
  std::int64_t milliseconds = 0;  // since 1970-01-01 UTC
  std::string timeText;           // local time, "Mon Nov 16 09:43:14.123"
  std::string text;

  bool operator==(const LogHistoryEntry&) const = default;
};

// Lines by their running numbers; the lowest numbers go when there are more than the capacity. Any
// thread; the lock guards the lines.
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

  // Under the lock, with lines.
  bool Resolve(std::int64_t* first, std::int64_t* last) const;

  const std::size_t capacity_;
  mutable std::mutex lock_;
  Lines lines_;  // guarded by lock_
};

}  // namespace qorp::log
