#include "render/label_colour.h"

#include <algorithm>
#include <array>

namespace {

constexpr bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

constexpr unsigned HexValue(char c) {
  return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

}  // namespace

std::optional<LabelColour> ReadLabelColour(std::string_view text) {
  if (text.empty() || text.front() != '#') {
    return std::nullopt;
  }
  const std::string_view digits = text.substr(1);
  const bool single = digits.size() == 3 || digits.size() == 4;
  if ((!single && digits.size() != 6 && digits.size() != 8) ||
      !std::all_of(digits.begin(), digits.end(), IsHexDigit)) {
    return std::nullopt;
  }
  const std::size_t width = single ? 1 : 2;
  const std::size_t channels = digits.size() / width;
  std::array<std::uint8_t, 4> argb{255, 0, 0, 0};
  for (std::size_t i = 0; i < channels; ++i) {
    const unsigned first = HexValue(digits[i * width]);
    argb[4 - channels + i] = static_cast<std::uint8_t>(
        single ? first * 17 : first * 16 + HexValue(digits[i * width + 1]));
  }
  return LabelColour{argb[1], argb[2], argb[3], argb[0]};
}
