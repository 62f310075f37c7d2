// What one input contributes to the picture of a frame.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

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

// What is drawn over a window's picture.
struct WindowOverlays {
  static constexpr std::int32_t kMaxChannels = 10;

  bool selected = false;
  bool metered = false;                      // the rest counts only then
  std::int32_t channels = 0;                 // 0 to kMaxChannels
  std::array<float, kMaxChannels> levels{};  // 1 is full scale
  std::array<float, kMaxChannels> peaks{};
  bool alarm = false;

  std::size_t Channels() const {
    return static_cast<std::size_t>(std::clamp(channels, 0, kMaxChannels));
  }
  std::span<const float> Levels() const { return std::span(levels).first(Channels()); }
  std::span<const float> Peaks() const { return std::span(peaks).first(Channels()); }
};
