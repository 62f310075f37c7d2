// The basic types of the platform's interfaces, at their documented widths.
#pragma once

#include <cstddef>
#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using DWORD_PTR = std::uintptr_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using UINT = std::uint32_t;
using BOOL = std::int32_t;
using LONGLONG = std::int64_t;
using ULONGLONG = std::uint64_t;
using LONG_PTR = std::intptr_t;
// The platform's wide character is a UTF-16 code unit.
using WCHAR = char16_t;
using LPCWSTR = const WCHAR*;
using LPWSTR = WCHAR*;
using LPOLESTR = WCHAR*;
using HRESULT = std::int32_t;

inline constexpr BOOL TRUE = 1;
inline constexpr BOOL FALSE = 0;

struct RECT {
  LONG left;
  LONG top;
  LONG right;
  LONG bottom;
};
