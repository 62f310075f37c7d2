// UTF-8, byte by byte.
#pragma once

#include <cstdint>

namespace os {

// Appends the bytes of a code point. A value that is none gets the bytes that the arithmetic gives.
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
