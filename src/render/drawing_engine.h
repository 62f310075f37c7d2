// The drawing engine: the labels of a wall, and the drawing of its windows.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "render/text_renderer.h"
#include "render/window_state.h"

// Font size of the labels of a canvas, in points: 16 for 1080 lines, in proportion for others,
// between 8 and 48.
std::int32_t LabelFontSize(std::int32_t canvasHeight);

// Where the label of a window lies: a quarter of the font size below it, as wide as the window and
// four font sizes high. None when that is far outside of any canvas.
std::optional<LabelRect> LabelRectOf(const WindowState& window, std::int32_t canvasHeight);

// The line of text under a window. Owned by the drawing engine, one for each window; used by the
// drawing thread only.
class Label {
 public:
  Label();

  // UTF-8; what is damaged in it shows as replacement characters. Kept until the next one; an empty
  // text shows no label.
  void SetText(std::string_view text);
  const std::string& Text() const { return text_; }
  TextRenderer& Renderer() { return renderer_; }

  // Draws the text into the label's rectangle under the window, as far as that lies inside the
  // canvas.
  void Draw(const WindowState& window, const Yv12Picture& canvas,
            const qorp::WideRatio& pixelAspect);

 private:
  std::string text_;
  std::u16string wideText_;  // of text_, once it is drawn
  bool wideTextIsOld_ = false;
  TextRenderer renderer_;
};

// Holds one label for each window, in the order of the windows. Made and owned by the filter when
// it is configured; afterwards used by the composition thread only, without a lock.
class Compose {
 public:
  // None for a count below one. Fonts are looked up here, which takes some milliseconds.
  explicit Compose(std::int32_t windowCount);

  std::int32_t LabelCount() const { return static_cast<std::int32_t>(labels_.size()); }
  // Null for an index outside of the count.
  Label* Find(std::int32_t windowIndex);

 private:
  std::vector<std::unique_ptr<Label>> labels_;
};

// Replaces the text (UTF-8) of a window's label. A window without a label is ignored.
void SetLabelText(Compose& labels, std::int32_t windowIndex, std::string_view text);

// Gives the label of a window the text colour that a host named. A text that names none, or a null
// one, keeps the colour that the label has; like every assignment it counts as a change when it is
// the first one. A window without a label is ignored.
void ParseLabelColour(Compose& labels, std::int32_t windowIndex, const char* text);

// Copies the picture of a window into the canvas, unscaled and clipped, and draws its label under
// it; does nothing for one that is not enabled or has no picture.
void DrawWindow(Label& label, const WindowState& window, const Yv12Picture& canvas,
                const qorp::WideRatio& pixelAspect);
