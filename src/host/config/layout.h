// Places windows where the wall file does not.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "host/config/wall.h"
#include "host/units.h"

namespace host::config {

// Windows of one size in rows, from the top left, in the order of the channels; each is centred in
// its cell with the lines for its label under it, and so is the last row, if it is not full. Sizes
// and places are even, and every window keeps at least two pixels away from the right and bottom
// edges of the canvas, so that each may be selected. Nothing when the windows would be smaller than
// 16x16.
std::optional<std::vector<Window>> LayOutWindows(const Canvas& canvas, const LayoutRules& rules,
                                                 std::size_t count, bool labels);

// The layouts that every wall has: "1", "2x2" to "6x6", "1+5", "1+7" and "2+8" (large windows, then
// small ones).
const std::vector<std::string>& BuiltInLayouts();

// A label, a file name and a part of a URL: up to 64 letters, digits, blanks, "_-+.".
bool IsLayoutName(const std::string& name);
// One of the built-in layouts, or a name with another meaning: "file", "auto", "solo".
bool IsReservedLayout(const std::string& name);

// The places of a built-in layout, in the order in which channels fill them, with the same
// properties as above. Nothing for another name, and when a window would be smaller than 16x16.
std::optional<std::vector<Window>> BuiltInPlaces(const std::string& name, const Canvas& canvas,
                                                 const LayoutRules& rules, bool labels);

// One window that is as large as the canvas allows with the label's room under it.
Window SoloWindow(const Canvas& canvas, const LayoutRules& rules, bool label);

// Whether the selection border can be drawn: the window lies inside the canvas and at least a pixel
// away from its right and bottom edges.
bool CanBeSelected(const Window& window, const Canvas& canvas);

}  // namespace host::config
