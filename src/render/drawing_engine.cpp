#include "render/drawing_engine.h"

#include <algorithm>
#include <limits>

#include "render/label_font.h"
#include "util/text_codecs.h"

namespace {

bool IsInt32(std::int64_t value) {
  return value >= std::numeric_limits<std::int32_t>::min() &&
         value <= std::numeric_limits<std::int32_t>::max();
}

}  // namespace

std::optional<LabelRect> LabelRectOf(const WindowState& window, std::int32_t canvasHeight) {
  const std::int32_t size = LabelFontSize(canvasHeight);
  const std::int64_t right = std::int64_t{window.x} + window.w;
  const std::int64_t top = std::int64_t{window.y} + window.h + size / 4;
  const std::int64_t bottom = top + std::int64_t{4} * size;
  if (!IsInt32(right) || !IsInt32(top) || !IsInt32(bottom)) {
    return std::nullopt;
  }
  return LabelRect{window.x, static_cast<std::int32_t>(top), static_cast<std::int32_t>(right),
                   static_cast<std::int32_t>(bottom)};
}

Label::Label() {
  renderer_.SetFontName(u"Segoe UI");
  renderer_.SetBackgroundColour({255, 0, 255, 0});
}

void Label::SetText(std::string_view text) {
  if (text_ != text) {
    text_ = text;
    wideTextIsOld_ = true;
  }
}

void Label::Draw(const WindowState& window, const Yv12Picture& canvas,
                 const qorp::WideRatio& pixelAspect) {
  if (text_.empty()) {
    return;
  }
  const std::optional<LabelRect> rect = LabelRectOf(window, canvas.height);
  if (!rect) {
    return;
  }
  if (wideTextIsOld_) {
    wideText_ = qorp::WidenLeniently(text_);
    wideTextIsOld_ = false;
  }
  renderer_.SetTarget(canvas);
  renderer_.SetFontSize(LabelFontSize(canvas.height));
  renderer_.SetPixelAspect(pixelAspect);
  renderer_.Draw(*rect, wideText_);
}

Compose::Compose(std::int32_t windowCount) {
  for (std::int32_t i = 0; i < windowCount; ++i) {
    labels_.push_back(std::make_unique<Label>());
  }
}

Label* Compose::Find(std::int32_t windowIndex) {
  return windowIndex >= 0 && windowIndex < LabelCount()
             ? labels_[static_cast<std::size_t>(windowIndex)].get()
             : nullptr;
}

void SetLabelText(Compose& labels, std::int32_t windowIndex, std::string_view text) {
  if (Label* const label = labels.Find(windowIndex)) {
    label->SetText(text);
  }
}

void ParseLabelColour(Compose& labels, std::int32_t windowIndex, const char* text) {
  Label* const label = labels.Find(windowIndex);
  if (label == nullptr) {
    return;
  }
  TextRenderer& renderer = label->Renderer();
  const std::optional<LabelColour> colour =
      text != nullptr ? ReadLabelColour(text) : std::optional<LabelColour>();
  renderer.SetTextColour(colour.value_or(renderer.TextColour()));
}

void DrawWindow(Label& label, const WindowState& window, const Yv12Picture& canvas,
                const qorp::WideRatio& pixelAspect) {
  if (!window.IsDrawn()) {
    return;
  }
  CopyPictureClipped(window.picture, window.w, window.h, canvas, window.x, window.y);
  label.Draw(window, canvas, pixelAspect);
}

namespace {

bool BarFits(const SelectorBar& bar, std::int32_t W, std::int32_t H) {
  return bar.x >= 0 && bar.y >= 0 && bar.w >= 0 && bar.h >= 0 && std::int64_t{bar.x} + bar.w < W &&
         std::int64_t{bar.y} + bar.h < H;
}

// Start of a bar of this thickness that ends at the window's right or bottom edge.
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
