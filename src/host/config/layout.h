// Places the windows of a wall that leaves their places open.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "host/config/wall.h"
#include "host/units.h"

namespace host::config {

struct LayoutRules {
  std::optional<int> columns;    // none: as many as give the largest windows
  std::optional<int> gap;        // pixels between windows; none: a ninetieth of the canvas's height
  std::optional<int> margin;     // pixels around them all; none: twice that
  std::optional<int> labelRoom;  // pixels under each window; none: LabelRoom, or 0 without labels
  std::optional<Ratio> windowAspect;  // as shown; none: that of the canvas
};

// Windows of one size in rows, from the top left, in the order of the channels; each is centred in
// its cell with the lines for its label under it. Sizes and places are even, and every window keeps
// at least two pixels away from the right and bottom edges of the canvas, so that each may be
// selected. Nothing when the windows would be smaller than 16x16.
std::optional<std::vector<Window>> LayOutWindows(const Canvas& canvas, const LayoutRules& rules,
                                                 std::size_t count, bool labels);

}  // namespace host::config
