// Label: the line of text under a window.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "render/ratio.h"
#include "render/text_renderer.h"
#include "render/window_state.h"
#include "render/yv12.h"

// Font size of the labels of a canvas, in points: 16 for 1080 lines, in proportion for others,
// between 8 and 48.
std::int32_t LabelFontSize(std::int32_t canvasHeight);

// Where the label of a window lies: a quarter of the font size below it, as wide as the window and
// four font sizes high. None when that is far outside of any canvas.
std::optional<LabelRect> LabelRectOf(const WindowState& window, std::int32_t canvasHeight);

// Owned by the drawing engine, one for each window; used by the drawing thread only.
class Label {
 public:
  explicit Label(std::uint32_t windowIndex);

  std::uint32_t WindowIndex() const { return windowIndex_; }
  // UTF-8; what is damaged in it shows as replacement characters. Kept until the next one; an empty
  // text shows no label.
  void SetText(std::string_view text);
  const std::string& Text() const { return text_; }
  TextRenderer& Renderer() { return renderer_; }

  // Draws the text into the label's rectangle under the window, as far as that lies inside the
  // canvas.
  void Draw(const WindowState& window, const Yv12Picture& canvas, const Ratio& pixelAspect);

 private:
  std::uint32_t windowIndex_;
  std::string text_;
  std::u16string wideText_;  // of text_, once it is drawn
  bool wideTextIsOld_ = false;
  TextRenderer renderer_;
};
