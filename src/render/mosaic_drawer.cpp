#include "render/mosaic_drawer.h"

#include <algorithm>

#include "render/selector_drawer.h"

namespace {

// Chroma samples cover two columns and rows from an even one on.
std::int64_t EvenBelow(std::int64_t place) {
  return place - (place & 1);
}
std::int64_t EvenAbove(std::int64_t place) {
  return place + (place & 1);
}

}  // namespace

bool SelectionsFit(std::span<const WindowState> windows, std::span<const WindowOverlays> overlays,
                   const Yv12Picture& canvas) {
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (overlays[i].selected && !SelectorFits(windows[i], canvas)) {
      return false;
    }
  }
  return true;
}

MosaicDrawer::Area MosaicDrawer::Area::Of(std::int64_t left, std::int64_t top, std::int64_t right,
                                          std::int64_t bottom, const Yv12Picture& canvas) {
  const Area area{EvenBelow(std::max<std::int64_t>(left, 0)),
                  EvenBelow(std::max<std::int64_t>(top, 0)),
                  EvenAbove(std::min<std::int64_t>(right, canvas.width)),
                  EvenAbove(std::min<std::int64_t>(bottom, canvas.height))};
  return area.left < area.right && area.top < area.bottom ? area : Area{};
}

void MosaicDrawer::Area::Include(const Area& other) {
  if (IsEmpty()) {
    *this = other;
  } else if (!other.IsEmpty()) {
    *this = {std::min(left, other.left), std::min(top, other.top), std::max(right, other.right),
             std::max(bottom, other.bottom)};
  }
}

MosaicDrawer::Area MosaicDrawer::OverlayArea(const WindowState& window,
                                             const WindowOverlays& overlays,
                                             const Yv12Picture& canvas) {
  Area area;
  if (overlays.selected) {
    for (const SelectorBar& bar : SelectorFrame(window, canvas.height)) {
      area.Include(
          Area::Of(bar.x, bar.y, std::int64_t{bar.x} + bar.w, std::int64_t{bar.y} + bar.h, canvas));
    }
  }
  if (overlays.metered && MeterDrawer::Shows(window.w / 10, window.h)) {
    const MeterPanel panel(canvas, window.x, window.y, window.w / 10, window.h,
                           static_cast<std::int32_t>(overlays.Channels()));
    const RowRange rows = MeterRowsTouched(panel, overlays.Levels(), overlays.Peaks());
    area.Include(Area::Of(panel.x, rows.top, panel.x + panel.width, rows.bottom, canvas));
  }
  return area;
}

void MosaicDrawer::FindSeparateWindows(Compose& labels, std::span<const WindowState> windows,
                                       std::span<const WindowOverlays> overlays,
                                       const Yv12Picture& canvas) {
  const bool drawable = SelectionsFit(windows, overlays, canvas);
  footprints_.assign(windows.size(), {});
  if (!drawable) {
    return;
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const WindowState& window = windows[i];
    Footprint& footprint = footprints_[i];
    footprint.isSeparate = true;
    footprint.overlays = OverlayArea(window, overlays[i], canvas);
    const Label* const label = labels.Find(static_cast<std::int32_t>(i));
    if (label == nullptr || !window.IsDrawn()) {
      continue;
    }
    footprint.picture = Area::Of(window.x, window.y, std::int64_t{window.x} + window.w,
                                 std::int64_t{window.y} + window.h, canvas);
    const std::optional<LabelRect> rect = LabelRectOf(window, canvas.height);
    if (rect && !label->Text().empty()) {
      footprint.label = Area::Of(rect->left, rect->top, rect->right, rect->bottom, canvas);
    }
  }
  for (std::size_t later = 1; later < windows.size(); ++later) {
    Footprint& other = footprints_[later];
    for (std::size_t i = 0; i < later; ++i) {
      Footprint& footprint = footprints_[i];
      if (footprint.overlays.Meets(other.overlays)) {
        footprint.isSeparate = other.isSeparate = false;
      } else if (footprint.overlays.Meets(other.picture) || footprint.overlays.Meets(other.label)) {
        footprint.isSeparate = false;
      }
    }
  }
}

void MosaicDrawer::Draw(Compose& labels, std::span<const WindowState> windows,
                        std::span<const WindowOverlays> overlays, const Yv12Picture& canvas,
                        const qorp::Ratio& displayAspect) {
  FindSeparateWindows(labels, windows, overlays, canvas);
  const qorp::WideRatio pixelAspect = qorp::PixelAspect(canvas.width, canvas.height, displayAspect);
  const auto drawSelection = [&](std::size_t i) {
    if (overlays[i].selected) {
      DrawSelector(windows[i], canvas);
    }
  };
  const auto drawMeter = [&](std::size_t i) {
    if (overlays[i].metered) {
      const WindowState& window = windows[i];
      meters_.Draw(canvas, window.x, window.y, window.w / 10, window.h, overlays[i].Levels(),
                   overlays[i].Peaks(), overlays[i].alarm);
    }
  };

  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (Label* const label = labels.Find(static_cast<std::int32_t>(i))) {
      DrawWindow(*label, windows[i], canvas, pixelAspect);
    }
    if (footprints_[i].isSeparate) {
      drawSelection(i);
      drawMeter(i);
    }
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (!footprints_[i].isSeparate) {
      drawSelection(i);
    }
  }
  for (std::size_t i = 0; i < windows.size(); ++i) {
    if (!footprints_[i].isSeparate) {
      drawMeter(i);
    }
  }
}
