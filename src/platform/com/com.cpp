#include "platform/com/com.h"

#include <array>
#include <cstdio>

std::string GuidToString(const GUID& guid) {
  std::array<char, 39> text{};
  std::snprintf(text.data(), text.size(), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                guid.Data1, guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2],
                guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
  return text.data();
}

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

}  // namespace

bool GuidFromString(std::string_view text, GUID* guid) {
  constexpr std::string_view kShape = "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";
  if (text.size() != kShape.size()) {
    return false;
  }
  std::array<std::uint8_t, 16> bytes{};
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kShape[i] != 'x') {
      if (text[i] != kShape[i]) {
        return false;
      }
      continue;
    }
    const int digit = HexDigit(text[i]);
    if (digit < 0) {
      return false;
    }
    bytes[nibble / 2] = static_cast<std::uint8_t>(bytes[nibble / 2] << 4 | digit);
    ++nibble;
  }
  guid->Data1 =
      static_cast<std::uint32_t>(bytes[0]) << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
  guid->Data2 = static_cast<std::uint16_t>(bytes[4] << 8 | bytes[5]);
  guid->Data3 = static_cast<std::uint16_t>(bytes[6] << 8 | bytes[7]);
  std::memcpy(guid->Data4, &bytes[8], 8);
  return true;
}
