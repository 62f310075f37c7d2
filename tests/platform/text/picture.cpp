#include "picture.h"

#include <algorithm>

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
  const os::PaintedText painted = painter.Paint(painting);
  Picture picture;
  picture.width = painted.Width();
  picture.height = painted.Height();
  picture.ink = painted.Ink();
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(picture.width) *
                                  static_cast<std::size_t>(picture.height) * 4);
  painted.WriteArgb(bytes.data(), std::ptrdiff_t{picture.width} * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    picture.pixels.push_back(static_cast<std::uint32_t>(bytes[i]) |
                             static_cast<std::uint32_t>(bytes[i + 1]) << 8 |
                             static_cast<std::uint32_t>(bytes[i + 2]) << 16 |
                             static_cast<std::uint32_t>(bytes[i + 3]) << 24);
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
