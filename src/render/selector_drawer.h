// The red frame around a selected window.
#pragma once

#include <array>
#include <cstdint>

#include "render/window_state.h"
#include "render/yv12.h"
#include "util/exceptions.h"

// A bar of a selector frame does not lie inside the canvas.
class BadConfigException : public TavrelException {
 public:
  const char* what() const noexcept override { return "Cannot draw selector: bad config"; }
};

// Fills the w x h pixels at (x, y) of the W x H canvas with opaque red. Throws BadConfigException,
// with nothing drawn, for a negative position or size and for a bar that reaches the last column or
// row of the canvas: a frame keeps one pixel away from the right and bottom edges. The chroma
// samples that an odd bar shares with its neighbours turn red as well.
void DrawSelectorBar(std::uint8_t* canvas, std::int32_t W, std::int32_t H, std::int32_t x,
                     std::int32_t y, std::int32_t w, std::int32_t h);

// One bar of a frame, in canvas pixels.
struct SelectorBar {
  std::int32_t x;
  std::int32_t y;
  std::int32_t w;
  std::int32_t h;
};

// The top, bottom, left and right bar of the frame inside a window, a 150th of the canvas's height
// thick. A window may be anywhere: what is far outside the canvas stays there.
std::array<SelectorBar, 4> SelectorFrame(const WindowState& window, std::int32_t canvasHeight);

// Whether all bars of the window's frame can be drawn.
bool SelectorFits(const WindowState& window, const Yv12Picture& canvas);

// Draws the four bars in their order. Throws BadConfigException at the first one that does not fit;
// those before it stay drawn.
void DrawSelector(const WindowState& window, const Yv12Picture& canvas);
