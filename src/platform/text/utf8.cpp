#include "platform/text/utf8.h"

#include <cstdint>

namespace os {

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xD800;
}

bool IsLowSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xDC00;
}

}  // namespace

void ToUtf8(std::u16string_view text, std::string& utf8) {
  utf8.clear();
  const auto append = [&utf8](std::uint32_t byte) { utf8.push_back(static_cast<char>(byte)); };
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t c = text[i];
    if (IsHighSurrogate(text[i]) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c & 0x3FF) << 10) + (text[i + 1] & 0x3FFU);
      ++i;
    } else if (c == 0 || IsHighSurrogate(text[i]) || IsLowSurrogate(text[i])) {
      c = kReplacement;
    }
    if (c < 0x80) {
      append(c);
      continue;
    }
    if (c < 0x800) {
      append(0xC0 | (c >> 6));
    } else {
      if (c < 0x10000) {
        append(0xE0 | (c >> 12));
      } else {
        append(0xF0 | (c >> 18));
        append(0x80 | ((c >> 12) & 0x3F));
      }
      append(0x80 | ((c >> 6) & 0x3F));
    }
    append(0x80 | (c & 0x3F));
  }
}

}  // namespace os
