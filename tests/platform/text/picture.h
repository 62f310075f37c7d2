// A painting that outlives its painter, and what tests ask of one.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/text/text_painter.h"

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<std::uint32_t> pixels;  // A * 2^24 + R * 2^16 + G * 2^8 + B
  os::PixelBounds ink;                // as the painter reported it

  std::uint32_t At(int x, int y) const {
    return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                  static_cast<std::size_t>(x)];
  }
  std::uint32_t Alpha(int x, int y) const { return At(x, y) >> 24; }
  // The bounds of the pixels that differ from clearColour.
  os::PixelBounds Bounds(std::uint32_t clearColour = 0) const;
  Picture Crop(const os::PixelBounds& bounds) const;
  // Sizes and pixels.
  bool operator==(const Picture& other) const {
    return width == other.width && height == other.height && pixels == other.pixels;
  }
};

Picture Paint(os::TextPainter& painter, const os::TextPainting& painting);
// One line from the left edge, white on nothing, in a bitmap large enough.
Picture PaintLine(os::TextPainter& painter, std::u16string_view text);
