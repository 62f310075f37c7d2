#include "render/selector_drawer.h"

#include "render/yv12.h"

void DrawSelectorBar(std::uint8_t* canvas, std::int32_t W, std::int32_t H, std::int32_t x,
                     std::int32_t y, std::int32_t w, std::int32_t h) {
  if (x < 0 || y < 0 || w < 0 || h < 0 || std::int64_t{x} + w >= W || std::int64_t{y} + h >= H) {
    throw BadConfigException();
  }
  const Yv12Picture picture{canvas, W, H};
  FillPlaneRect(picture, Plane::Y, x, y, w, h, 76);
  FillPlaneRect(picture, Plane::V, x, y, w, h, 255);
  FillPlaneRect(picture, Plane::U, x, y, w, h, 86);
}
