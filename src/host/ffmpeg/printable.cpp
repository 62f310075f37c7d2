#include "host/ffmpeg/printable.h"

#include <algorithm>
#include <cstdint>

namespace host::ffmpeg {
namespace {

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The bytes of the well-formed character at the beginning of a text that is not empty, and its
// code point; 0 bytes when there is none.
std::size_t ReadCharacter(std::string_view text, std::uint32_t& code) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xC2 ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  code = length == 1 ? first : first & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text[i])) {
      return 0;
    }
    code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
  }
  const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool isNone = code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF);
  return tooLong || isNone ? 0 : length;
}

bool IsControl(std::uint32_t code) {
  const bool separates = code == 0x2028 || code == 0x2029;
  const bool changesDirection = code == 0x061C || code == 0x200E || code == 0x200F ||
                                (code >= 0x202A && code <= 0x202E) ||
                                (code >= 0x2066 && code <= 0x2069);
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || separates || changesDirection;
}

}  // namespace

std::string Printable(std::string_view text) {
  constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
  std::string clean;
  clean.reserve(text.size());
  while (!text.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = ReadCharacter(text, code);
    if (length == 0) {
      clean += kReplacement;
    } else if (IsControl(code)) {
      clean += ' ';
    } else {
      clean += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return clean;
}

std::string_view CutToBytes(std::string_view text, std::size_t bytes) {
  if (text.size() <= bytes) {
    return text;
  }
  while (bytes > 0 && IsContinuation(text[bytes])) {
    --bytes;
  }
  return text.substr(0, bytes);
}

std::string_view CutToColumns(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  for (; end < text.size(); ++end) {
    if (!IsContinuation(text[end]) && columns-- == 0) {
      break;
    }
  }
  return text.substr(0, end);
}

}  // namespace host::ffmpeg
