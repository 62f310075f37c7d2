#include "log/console_sink.h"

#include <algorithm>
#include <array>
#include <string>

namespace qorp::log {
namespace {

constexpr std::array<std::uint16_t, 4> kColours{12, 14, 7, 10};

// Other levels look like the nearest of the four.
std::uint16_t ColourOf(std::int32_t level) {
  return kColours[static_cast<std::size_t>(std::clamp(level, 0, 3))];
}

}  // namespace

void console_sink::SetMaxLevel(std::int32_t maxLevel) {
  const std::lock_guard guard(lock_);
  maxLevel_ = maxLevel;
}

void console_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  const std::lock_guard guard(lock_);
  if (level <= maxLevel_) {
    console_.WriteLine(ColourOf(level), FormatLogTime(time) + " " + text);
  }
}

}  // namespace qorp::log
