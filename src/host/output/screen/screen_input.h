// ScreenInput: what an operator does in the window of a screen.
#pragma once

#include <cstdint>

namespace host {

struct ScreenInput {
  enum class Kind : std::int32_t {
    kClick,
    kDoubleClick,
    kEnter,
    kEscape,
    kLeft,
    kRight,
    kUp,
    kDown,
    kChannel,     // a digit
    kLayout,      // a digit with the control key
    kNextLayout,  // "L"
  };
  Kind kind = Kind::kClick;
  std::int32_t x = 0;  // of a click, in canvas pixels
  std::int32_t y = 0;
  std::int32_t digit = 0;  // 1 to 9
};

}  // namespace host
