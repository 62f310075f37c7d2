#include "render/mosaic_drawer.h"

#include <algorithm>

#include "render/ratio.h"
#include "render/selector_drawer.h"

namespace {

// Below that the parts of a meter may stick out of their window.
constexpr std::int32_t kLeastHeight = 8;

// Chroma samples cover two columns and rows from an even one on.
std::int64_t EvenBelow(std::int64_t place) {
  return place - (place & 1);
}
std::int64_t EvenAbove(std::int64_t place) {
  return place + (place & 1);
}

}  // namespace

MosaicDrawer::Area MosaicDrawer::AreaOf(const WindowState& window) {
  return {EvenBelow(window.x), EvenBelow(window.y), EvenAbove(std::int64_t{window.x} + window.w),
          EvenAbove(std::int64_t{window.y} + window.h)};
}

MosaicDrawer::Area MosaicDrawer::LabelAreaOf(const WindowState& window, std::int32_t canvasHeight) {
  const std::optional<LabelRect> rect = LabelRectOf(window, canvasHeight);
  return rect ? Area{EvenBelow(rect->left), EvenBelow(rect->top), EvenAbove(rect->right),
                     EvenAbove(rect->bottom)}
              : Area{};
}

void MosaicDrawer::FindSeparateWindows(std::span<const WindowState> windows,
                                       std::span<const WindowMarks> marks,
                                       const Yv12Picture& canvas) {
  const std::size_t count = windows.size();
  areas_.resize(count);
  labelAreas_.resize(count);
  separate_.resize(count);
  bool drawable = true;
  for (std::size_t i = 0; i < count; ++i) {
    areas_[i] = AreaOf(windows[i]);
    labelAreas_[i] = LabelAreaOf(windows[i], canvas.height);
    separate_[i] = windows[i].h >= kLeastHeight ? 1 : 0;
    drawable = drawable && (!marks[i].selected || SelectorFits(windows[i], canvas));
  }
  if (!drawable) {
    std::fill(separate_.begin(), separate_.end(), 0);
    return;
  }
  for (std::size_t later = 1; later < count; ++later) {
    for (std::size_t i = 0; i < later; ++i) {
      if (areas_[i].Meets(areas_[later])) {
        separate_[i] = separate_[later] = 0;
      } else if (areas_[i].Meets(labelAreas_[later])) {
        separate_[i] = 0;
      }
    }
  }
}

void MosaicDrawer::DrawMeter(const WindowState& window, const WindowMarks& marks,
                             const Yv12Picture& canvas) {
  const auto channels =
      static_cast<std::size_t>(std::clamp(marks.channels, 0, WindowMarks::kMaxChannels));
  meters_.Draw(canvas, window.x, window.y, window.w / 10, window.h,
               std::span(marks.levels).first(channels), std::span(marks.peaks).first(channels),
               marks.alarm);
}

void MosaicDrawer::Draw(Compose& labels, std::span<const WindowState> windows,
                        std::span<const WindowMarks> marks, const Yv12Picture& canvas,
                        std::int32_t aspectX, std::int32_t aspectY) {
  FindSeparateWindows(windows, marks, canvas);
  const Ratio pixelAspect = PixelAspect(canvas.width, canvas.height, aspectX, aspectY);
  const auto drawSelectors = [&](std::size_t i) {
    if (marks[i].selected) {
      DrawSelector(windows[i], canvas);
    }
  };
  const auto drawMeters = [&](std::size_t i) {
    if (marks[i].metered) {
      DrawMeter(windows[i], marks[i], canvas);
    }
  };

  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (Label* const label = labels.Find(static_cast<std::int32_t>(i))) {
      DrawWindow(*label, windows[i], canvas, pixelAspect);
    }
    if (separate_[i] != 0) {
      drawSelectors(i);
      drawMeters(i);
    }
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (separate_[i] == 0) {
      drawSelectors(i);
    }
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (separate_[i] == 0) {
      drawMeters(i);
    }
  }
}
