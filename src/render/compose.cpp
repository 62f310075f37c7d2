#include "render/compose.h"

#include "render/ratio.h"
#include "render/yv12.h"

Compose::Compose(std::int32_t windowCount) {
  for (std::int32_t i = 0; i < windowCount; ++i) {
    labels_.push_back(std::make_unique<Label>(static_cast<std::uint32_t>(i)));
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

void DrawWindow(Label& label, const WindowState& window, const Yv12Picture& canvas,
                const Ratio& pixelAspect) {
  if (!window.IsDrawn()) {
    return;
  }
  CopyPictureClipped(window.picture, window.w, window.h, canvas, window.x, window.y);
  label.Draw(window, canvas, pixelAspect);
}
