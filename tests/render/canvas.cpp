#include "canvas.h"

#include <algorithm>

Canvas::Canvas(std::int32_t w, std::int32_t h, std::uint8_t y, std::uint8_t v, std::uint8_t u)
    : width(w), height(h), bytes(Picture().LumaBytes() + 2 * Picture().ChromaBytes()) {
  Fill(y, v, u);
}

std::vector<std::uint8_t> Canvas::V() const {
  const auto luma = static_cast<std::ptrdiff_t>(width) * height;
  const auto chroma = static_cast<std::ptrdiff_t>(width / 2) * (height / 2);
  return {bytes.begin() + luma, bytes.begin() + luma + chroma};
}

std::vector<std::uint8_t> Canvas::U() const {
  return {bytes.end() - static_cast<std::ptrdiff_t>(width / 2) * (height / 2), bytes.end()};
}

void Canvas::Fill(std::uint8_t y, std::uint8_t v, std::uint8_t u) {
  const Yv12Picture picture = Picture();
  std::fill_n(picture.Y(), picture.LumaBytes(), y);
  std::fill_n(picture.V(), picture.ChromaBytes(), v);
  std::fill_n(picture.U(), picture.ChromaBytes(), u);
}

Area ChangedArea(const Canvas& a, const Canvas& b) {
  Area area{a.width, a.height, 0, 0};
  for (std::int32_t y = 0; y < a.height; ++y) {
    for (std::int32_t x = 0; x < a.width; ++x) {
      if (a.Luma(x, y) != b.Luma(x, y)) {
        area = {std::min(area.left, x), std::min(area.top, y), std::max(area.right, x + 1),
                std::max(area.bottom, y + 1)};
      }
    }
  }
  return area.right == 0 ? Area{} : area;
}
