// A painting as pixels, which outlives its painter, with queries for tests.
#pragma once

#include <algorithm>
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
  // The bounds of the pixels that differ from clearColour.
  os::PixelBounds Bounds(std::uint32_t clearColour = 0) const {
    os::PixelBounds bounds{width, height, 0, 0};
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        if (At(x, y) != clearColour) {
          bounds = {std::min(bounds.left, x), std::min(bounds.top, y),
                    std::max(bounds.right, x + 1), std::max(bounds.bottom, y + 1)};
        }
      }
    }
    return bounds.Empty() ? os::PixelBounds{} : bounds;
  }
  Picture Crop(const os::PixelBounds& bounds) const {
    Picture cropped;
    cropped.width = bounds.right - bounds.left;
    cropped.height = bounds.bottom - bounds.top;
    for (int y = bounds.top; y < bounds.bottom; ++y) {
      for (int x = bounds.left; x < bounds.right; ++x) {
        cropped.pixels.push_back(At(x, y));
      }
    }
    return cropped;
  }
  // Sizes and pixels.
  bool operator==(const Picture& other) const {
    return width == other.width && height == other.height && pixels == other.pixels;
  }
};

inline Picture Paint(os::TextPainter& painter, const os::TextPainting& painting) {
  const os::PaintedText painted = painter.Paint(painting);
  Picture picture;
  picture.width = painted.Width();
  picture.height = painted.Height();
  picture.ink = painted.Ink();
  picture.pixels.resize(static_cast<std::size_t>(picture.width) *
                        static_cast<std::size_t>(picture.height));
  painted.WriteArgb(reinterpret_cast<std::uint8_t*>(picture.pixels.data()),
                    std::ptrdiff_t{picture.width} * 4);
  return picture;
}

// One line from the left edge, white on transparent, in a bitmap large enough.
inline Picture PaintLine(os::TextPainter& painter, std::u16string_view text) {
  os::TextPainting painting;
  painting.text = text;
  painting.width = 600;
  painting.height = 60;
  painting.wrap = false;
  return Paint(painter, painting);
}
