#include "render/drawing_engine.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "util/text_codecs.h"

namespace {

bool IsInt32(std::int64_t value) {
  return value >= std::numeric_limits<std::int32_t>::min() &&
         value <= std::numeric_limits<std::int32_t>::max();
}

}  // namespace

std::int32_t LabelFontSize(std::int32_t canvasHeight) {
  const double size = canvasHeight * 16.0 / 1080.0;
  return static_cast<std::int32_t>(std::floor(std::clamp(size, 8.0, 48.0) + 0.5));
}

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
