#include "picture.h"

#include <algorithm>
#include <cstring>

os::PixelBounds Picture::Bounds(std::uint32_t clearColour) const {
  os::PixelBounds bounds{width, height, 0, 0};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (At(x, y) != clearColour) {
        bounds = {std::min(bounds.left, x), std::min(bounds.top, y), std::max(bounds.right, x + 1),
                  std::max(bounds.bottom, y + 1)};
      }
    }
  }
  return bounds.Empty() ? os::PixelBounds{} : bounds;
}

Picture Picture::Crop(const os::PixelBounds& bounds) const {
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

Picture Paint(os::TextPainter& painter, const os::TextPainting& painting) {
  const os::ArgbBitmap bitmap = painter.Paint(painting);
  Picture picture;
  picture.width = bitmap.width;
  picture.height = bitmap.height;
  picture.ink = bitmap.ink;
  for (int y = 0; y < bitmap.height; ++y) {
    for (int x = 0; x < bitmap.width; ++x) {
      const std::uint8_t* const bgra = bitmap.pixels + y * bitmap.stride + x * 4;
      picture.pixels.push_back(
          static_cast<std::uint32_t>(bgra[0]) | static_cast<std::uint32_t>(bgra[1]) << 8 |
          static_cast<std::uint32_t>(bgra[2]) << 16 | static_cast<std::uint32_t>(bgra[3]) << 24);
    }
  }
  return picture;
}

Picture PaintLine(os::TextPainter& painter, std::u16string_view text) {
  os::TextPainting painting;
  painting.text = text;
  painting.width = 600;
  painting.height = 60;
  painting.wrap = false;
  return Paint(painter, painting);
}
