// What one input contributes to the picture of a frame.
#pragma once

#include <cstdint>

// Collected for every frame by the frame loop; the picture belongs to a sample that is held until
// the frame is done.
struct WindowState {
  const std::uint8_t* picture = nullptr;  // YV12 of w x h pixels; null: not drawn
  bool enabled = false;
  std::int32_t x = 0;  // top left corner in the canvas, pixels, even
  std::int32_t y = 0;
  std::int32_t w = 0;  // pixels
  std::int32_t h = 0;

  bool IsDrawn() const { return enabled && picture != nullptr; }
};
