// Colours of labels and the texts by which hosts give them.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

struct LabelColour {
  std::uint8_t r = 0;
  std::uint8_t g = 0;
  std::uint8_t b = 0;
  std::uint8_t a = 0;  // 255 is opaque

  bool operator==(const LabelColour&) const = default;
  // A * 2^24 + R * 2^16 + G * 2^8 + B.
  constexpr std::uint32_t Argb() const {
    return std::uint32_t{a} << 24 | std::uint32_t{r} << 16 | std::uint32_t{g} << 8 | b;
  }
};

// One of #RGB, #ARGB, #RRGGBB and #AARRGGBB in hexadecimal digits of either case; a single digit d
// stands for dd, a missing A for opaque. Nothing for any other text.
std::optional<LabelColour> ReadLabelColour(std::string_view text);
