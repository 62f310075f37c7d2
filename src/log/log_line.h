// The lines of a log file:
//
//   42;Mon Nov 16 09:43:14.123;1763286194123;1;Composer audio/video #2 resynchronizes (-)
//   number;local time;milliseconds since 1970-01-01 UTC;level;text, which may itself hold ";"
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "log/log_history.h"

namespace qorp::log {

// Without the line end.
std::string FormatLogLine(std::int64_t number, const LogHistoryEntry& entry);

// True when line has the five fields at least.
bool IsLogLine(std::string_view line);

// The fields of a line that IsLogLine. Numbers are decimal; what follows their digits is not looked
// at. A field without a number throws std::invalid_argument "invalid stoll argument" ("invalid stoi
// argument" for the level), one beyond 64 bits (32 for the level) std::out_of_range "stoll argument
// out of range" ("stoi argument out of range").
std::int64_t ParseLogLineNumber(std::string_view line);
LogHistoryEntry ParseLogLine(std::string_view line);

// For readers of files in which rests of overwritten lines stand beside whole ones: nothing unless
// every field has exactly the form in which it is written.
struct NumberedLogLine {
  std::int64_t number = 0;
  LogHistoryEntry entry;

  bool operator==(const NumberedLogLine&) const = default;
};
std::optional<NumberedLogLine> ReadLogLine(std::string_view line);

}  // namespace qorp::log
