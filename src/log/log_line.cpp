#include "log/log_line.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "util/text_codecs.h"

namespace qorp::log {

std::string FormatLogTime(const LogTime& time) {
  return StringFormat("%.19s.%03d", os::LocalTimeText(time.seconds).c_str(), time.milliseconds);
}

void LogHistory::Insert(std::int64_t number, LogHistoryEntry entry) {
  const os::MutexLock guard(lock_);
  lines_.insert_or_assign(number, std::move(entry));
  while (lines_.size() > capacity_) {
    lines_.erase(lines_.begin());
  }
}

void LogHistory::Clear() {
  const os::MutexLock guard(lock_);
  lines_.clear();
}

bool LogHistory::Resolve(std::int64_t* first, std::int64_t* last) const {
  const std::int64_t oldest = lines_.begin()->first;
  const std::int64_t newest = lines_.rbegin()->first;
  const auto fromNewest = [&](std::int64_t bound) {
    constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
    if (bound >= 0) {
      return bound;
    }
    const std::int64_t behind = bound + 1;
    return newest < kLowest - behind ? kLowest : newest + behind;
  };
  *first = std::max(fromNewest(*first), oldest);
  *last = std::min(fromNewest(*last), newest);
  return *last >= *first;
}

bool LogHistory::GetRange(std::int64_t first, std::int64_t last, std::int64_t* outFirst,
                          std::int64_t* outLast) const {
  const os::MutexLock guard(lock_);
  if (lines_.empty()) {
    throw std::runtime_error("History is empty");
  }
  *outFirst = first;
  *outLast = last;
  return Resolve(outFirst, outLast);
}

std::vector<LogHistoryEntry> LogHistory::Get(std::int64_t first, std::int64_t last) const {
  const os::MutexLock guard(lock_);
  std::vector<LogHistoryEntry> entries;
  if (!lines_.empty() && Resolve(&first, &last)) {
    const auto end = lines_.upper_bound(last);
    for (auto line = lines_.lower_bound(first); line != end; ++line) {
      entries.push_back(line->second);
    }
  }
  return entries;
}

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

// "Mon Nov 16 09:43:14.123": in the form, 0 stands for a digit, d for a digit or a blank, other
// letters for any letter.
bool IsTimeText(std::string_view text) {
  constexpr std::string_view kForm = "Www Mmm dd 00:00:00.000";
  if (text.size() != kForm.size()) {
    return false;
  }
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool fits = kForm[i] == 'd'   ? std::isdigit(c) != 0 || c == ' '
                      : kForm[i] == '0' ? std::isdigit(c) != 0
                      : kForm[i] == ' ' || kForm[i] == ':' || kForm[i] == '.'
                          ? text[i] == kForm[i]
                          : std::isalpha(c) != 0;
    if (!fits) {
      return false;
    }
  }
  return true;
}

template <typename Number>
bool ReadWhole(std::string_view field, Number& number) {
  const char* const end = field.data() + field.size();
  const auto [next, error] = std::from_chars(field.data(), end, number);
  return error == std::errc() && next == end;
}

}  // namespace

std::string FormatPlainLine(std::int32_t level, std::string_view timeText, std::string_view text) {
  std::string line = "[Level " + std::to_string(level) + "] ";
  line += timeText;
  line += ' ';
  line += text;
  return line;
}

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

std::optional<NumberedLogLine> ReadLogLine(std::string_view line) {
  if (!IsLogLine(line)) {
    return std::nullopt;
  }
  const auto fields = SplitFields(line);
  NumberedLogLine read;
  if (!ReadWhole(fields[0], read.number) || read.number < 0 || !IsTimeText(fields[1]) ||
      !ReadWhole(fields[2], read.entry.milliseconds) || !ReadWhole(fields[3], read.entry.level)) {
    return std::nullopt;
  }
  read.entry.timeText = fields[1];
  read.entry.text = fields[4];
  return read;
}

}  // namespace qorp::log
