// ASCII names as wide text and back.
#pragma once

#include <string>
#include <string_view>

#include "platform/com/types.h"

// Each character becomes one UTF-16 unit; for ASCII text.
inline std::u16string WidenAscii(std::string_view text) {
  return std::u16string(text.begin(), text.end());
}

// Units beyond ASCII become "?"; for names in messages.
inline std::string NarrowToAscii(std::u16string_view text) {
  std::string narrow;
  narrow.reserve(text.size());
  for (const char16_t unit : text) {
    narrow.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
  }
  return narrow;
}
