// GUIDs: layout, comparison and the registry's text form.
#pragma once

#include <compare>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/com/types.h"

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];

  friend bool operator==(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) == 0;
  }
  // Orders GUIDs for containers; the order has no meaning of its own.
  friend bool operator<(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) < 0;
  }
};
static_assert(sizeof(GUID) == 16);

using IID = GUID;
using CLSID = GUID;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

inline constexpr GUID GUID_NULL{0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
inline constexpr CLSID CLSID_NULL = GUID_NULL;

// "{AEC64A13-679E-41A5-830B-9CC2914A9269}": braces, upper-case digits.
std::string GuidToString(const GUID& guid);
// Reads the form above (digits of either case); false when the text is anything else.
bool GuidFromString(std::string_view text, GUID* guid);
