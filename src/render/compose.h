// Compose, the drawing engine: the labels of a wall and the drawing of its windows.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "render/label.h"
#include "render/window_state.h"

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

// Copies the picture of a window into the canvas, unscaled and clipped, and draws its label under
// it; does nothing for one that is not enabled or has no picture.
void DrawWindow(Label& label, const WindowState& window, const Yv12Picture& canvas,
                const Ratio& pixelAspect);
