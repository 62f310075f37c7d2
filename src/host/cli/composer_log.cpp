#include "host/cli/composer_log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

#include "log/i_log_perf.h"

namespace host::cli {
namespace {

constexpr int kFixesAtStart = 2;
// The longest message of the logger, and what ends it.
constexpr std::size_t kMaxText = 1041;

}  // namespace

bool ComposerLog::BelongsToStart(const char* text) {
  int channel = 0;
  char sign = '\0';
  if (std::sscanf(text, "Composer audio/video #%d resynchronizes (%c)", &channel, &sign) != 2 ||
      sign != '-') {
    return false;
  }
  const std::lock_guard guard(lock_);
  return ++fixed_[channel] <= kFixesAtStart;
}

void ComposerLog::log(std::int32_t level, const char* format, ...) {
  std::array<char, kMaxText> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  next_.log(BelongsToStart(text.data()) ? std::max(level, qorp::log::kInfo) : level, "%s",
            text.data());
}

}  // namespace host::cli
