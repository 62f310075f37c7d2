// The red frame around a selected window.
#pragma once

#include <cstdint>

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
