#include "util/string_format.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace qorp {

std::string StringFormat(const char* format, ...) {
  if (format == nullptr) {
    return {};
  }
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  std::array<char, 256> few;
  const int length = std::vsnprintf(few.data(), few.size(), format, arguments);
  std::string text;
  if (length >= 0 && static_cast<std::size_t>(length) < few.size()) {
    text.assign(few.data(), static_cast<std::size_t>(length));
  } else if (length >= 0) {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  va_end(arguments);
  return text;
}

}  // namespace qorp
