#include "log/sinks.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "log/log_line.h"
#include "util/string_format.h"

namespace qorp::log {
namespace {

constexpr std::array<std::uint16_t, 4> kColours{12, 14, 7, 10};

// Other levels look like the nearest of the four.
std::uint16_t ColourOf(std::int32_t level) {
  return kColours[static_cast<std::size_t>(std::clamp(level, 0, 3))];
}

}  // namespace

void console_sink::SetMaxLevel(std::int32_t maxLevel) {
  const os::MutexLock guard(lock_);
  maxLevel_ = maxLevel;
}

void console_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  const os::MutexLock guard(lock_);
  if (level <= maxLevel_) {
    console_.WriteLine(ColourOf(level), FormatLogTime(time) + " " + text);
  }
}

void ostream_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  stream_ << FormatPlainLine(level, FormatLogTime(time), text) << std::endl;
}

namespace {

constexpr std::array<int, 4> kSeverities{3, 4, 6, 7};
constexpr int kFacilityLocal0 = 16 * 8;
constexpr std::array kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::size_t kMaxLine = 1024;

}  // namespace

syslog_sink::syslog_sink(os::DatagramSocket socket, std::string hostName)
    : socket_(std::move(socket)), hostName_(std::move(hostName)) {}

void syslog_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  const os::MutexLock guard(lock_);
  if (!socket_.IsValid()) {
    return;
  }
  // Levels beyond the four are as severe as the nearest.
  const int priority =
      kFacilityLocal0 + kSeverities[static_cast<std::size_t>(std::clamp(level, 0, 3))];
  const os::LocalTime local = os::ToLocalTime(time.seconds);
  std::string line =
      StringFormat("<%d>%s %2d %02d:%02d:%02d %s %04d ", priority,
                   kMonths[static_cast<std::size_t>(local.month - 1)], local.day, local.hour,
                   local.minute, local.second, hostName_.c_str(), sequenceNumber_);
  line += text;
  line.resize(std::min(line.size(), kMaxLine));
  line += '\0';
  socket_.Send(line);
  sequenceNumber_ = (sequenceNumber_ + 1) % 10000;
}

}  // namespace qorp::log
