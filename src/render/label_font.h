// How large the composer's labels are: hosts leave room for them.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

// Font size of the labels of a canvas, in points: 16 for 1080 lines, in proportion for others,
// between 8 and 48.
inline std::int32_t LabelFontSize(std::int32_t canvasHeight) {
  const double size = canvasHeight * 16.0 / 1080.0;
  return static_cast<std::int32_t>(std::floor(std::clamp(size, 8.0, 48.0) + 0.5));
}
