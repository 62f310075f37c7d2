#include "render/selector_drawer.h"

#include <algorithm>
#include <limits>

namespace {

bool BarFits(const SelectorBar& bar, std::int32_t W, std::int32_t H) {
  return bar.x >= 0 && bar.y >= 0 && bar.w >= 0 && bar.h >= 0 && std::int64_t{bar.x} + bar.w < W &&
         std::int64_t{bar.y} + bar.h < H;
}

// Where a bar of some thickness starts that ends with the window.
std::int32_t FarEdge(std::int32_t position, std::int32_t size, std::int32_t thickness) {
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(
      std::int64_t{position} + size - thickness, std::numeric_limits<std::int32_t>::min(),
      std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

void DrawSelectorBar(std::uint8_t* canvas, std::int32_t W, std::int32_t H, std::int32_t x,
                     std::int32_t y, std::int32_t w, std::int32_t h) {
  if (!BarFits({x, y, w, h}, W, H)) {
    throw BadConfigException();
  }
  const Yv12Picture picture{canvas, W, H};
  FillPlaneRect(picture, Plane::Y, x, y, w, h, 76);
  FillPlaneRect(picture, Plane::V, x, y, w, h, 255);
  FillPlaneRect(picture, Plane::U, x, y, w, h, 86);
}

std::array<SelectorBar, 4> SelectorFrame(const WindowState& window, std::int32_t canvasHeight) {
  const std::int32_t t = canvasHeight / 150;
  const std::int32_t lower = FarEdge(window.y, window.h, t);
  const std::int32_t right = FarEdge(window.x, window.w, t);
  return {{{window.x, window.y, window.w, t},
           {window.x, lower, window.w, t},
           {window.x, window.y, t, window.h},
           {right, window.y, t, window.h}}};
}

bool SelectorFits(const WindowState& window, const Yv12Picture& canvas) {
  const std::array bars = SelectorFrame(window, canvas.height);
  return std::all_of(bars.begin(), bars.end(), [&canvas](const SelectorBar& bar) {
    return BarFits(bar, canvas.width, canvas.height);
  });
}

void DrawSelector(const WindowState& window, const Yv12Picture& canvas) {
  for (const SelectorBar& bar : SelectorFrame(window, canvas.height)) {
    DrawSelectorBar(canvas.data, canvas.width, canvas.height, bar.x, bar.y, bar.w, bar.h);
  }
}
