// UTF-8, from text of other character sets and from code points.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace os {

// The bytes, in the character set of that name ("ISO-8859-5", "UCS-2BE"), as UTF-8. None when the
// system does not know the set, or the bytes are not valid in it. Any thread.
std::optional<std::string> ToUtf8(std::string_view bytes, const std::string& charset);

// Appends a code point in UTF-8. An invalid one is not rejected.
template <typename Bytes>
void AppendUtf8(std::uint32_t codePoint, Bytes& bytes) {
  const auto append = [&bytes](std::uint32_t byte) {
    bytes.push_back(static_cast<typename Bytes::value_type>(byte & 0xFF));
  };
  const auto continuation = [&](unsigned shift) { append(0x80 | ((codePoint >> shift) & 0x3F)); };
  if (codePoint < 0x80) {
    append(codePoint);
  } else if (codePoint < 0x800) {
    append(0xC0 | (codePoint >> 6));
    continuation(0);
  } else if (codePoint < 0x10000) {
    append(0xE0 | (codePoint >> 12));
    continuation(6);
    continuation(0);
  } else {
    append(0xF0 | (codePoint >> 18));
    continuation(12);
    continuation(6);
    continuation(0);
  }
}

}  // namespace os
