#include "log/log_line.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>

namespace qorp::log {
namespace {

constexpr char kSeparator = ';';
constexpr std::size_t kFields = 5;

// The last field takes the rest of the line, separators included.
std::array<std::string_view, kFields> SplitFields(std::string_view line) {
  std::array<std::string_view, kFields> fields;
  for (std::string_view& field : fields) {
    const std::size_t end = &field == &fields.back() ? line.npos : line.find(kSeparator);
    field = line.substr(0, end);
    line.remove_prefix(end == line.npos ? line.size() : end + 1);
  }
  return fields;
}

// function: the name that failures carry.
std::int64_t ParseNumber(std::string_view field, const std::string& function, std::int64_t lowest,
                         std::int64_t highest) {
  const std::string text(field);
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(text.c_str(), &end, 10);
  if (end == text.c_str()) {
    throw std::invalid_argument("invalid " + function + " argument");
  }
  if (errno == ERANGE || number < lowest || number > highest) {
    throw std::out_of_range(function + " argument out of range");
  }
  return number;
}

std::int64_t ParseInt64(std::string_view field) {
  using Limits = std::numeric_limits<std::int64_t>;
  return ParseNumber(field, "stoll", Limits::min(), Limits::max());
}

std::int32_t ParseInt32(std::string_view field) {
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(ParseNumber(field, "stoi", Limits::min(), Limits::max()));
}

}  // namespace

std::string FormatLogLine(std::int64_t number, const LogHistoryEntry& entry) {
  std::string line = std::to_string(number);
  line += kSeparator;
  line += entry.timeText;
  line += kSeparator;
  line += std::to_string(entry.milliseconds);
  line += kSeparator;
  line += std::to_string(entry.level);
  line += kSeparator;
  line += entry.text;
  return line;
}

bool IsLogLine(std::string_view line) {
  std::size_t separators = 0;
  for (const char c : line) {
    separators += c == kSeparator ? 1 : 0;
  }
  return separators + 1 >= kFields;
}

std::int64_t ParseLogLineNumber(std::string_view line) {
  return ParseInt64(SplitFields(line)[0]);
}

LogHistoryEntry ParseLogLine(std::string_view line) {
  const auto fields = SplitFields(line);
  return {ParseInt32(fields[3]), ParseInt64(fields[2]), std::string(fields[1]),
          std::string(fields[4])};
}

}  // namespace qorp::log
