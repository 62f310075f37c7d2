// MosaicDrawer: all that is drawn into one frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "render/compose.h"
#include "render/meter_drawer.h"
#include "render/window_state.h"
#include "render/yv12.h"

// What is drawn over a window's picture.
struct WindowMarks {
  static constexpr std::int32_t kMaxChannels = 10;

  bool selected = false;
  bool metered = false;                      // the rest counts only then
  std::int32_t channels = 0;                 // 0 to kMaxChannels
  std::array<float, kMaxChannels> levels{};  // 1 is full scale
  std::array<float, kMaxChannels> peaks{};
  bool alarm = false;
};

// The picture of a mosaic is what these passes leave behind, one after the other:
//
//   1. the windows in their order, each with its label
//   2. the frames of the selected windows
//   3. the meters
//
// By the time of the last pass the rows of the first windows have left the processor's caches, and
// reading them again costs more than drawing on them. So everything of a window is drawn at once
// wherever that gives the same bytes: where no window drawn after it, nor that window's label,
// touches a sample that it touches, and no other window's frame or meter does. That is every window
// of a mosaic whose windows do not overlap, adjoining ones included. The marks of the others wait
// for the passes, as all do when a frame cannot be drawn.
//
// Owned by whoever composes the frames; one thread at a time. Allocates nothing while the windows
// stay where they are and the labels what they are.
class MosaicDrawer {
 public:
  // canvas is shown at aspectX:aspectY. windows are matched with the labels as in DrawWindows;
  // marks has one for each. Throws BadConfigException when the frame of a selected window does not
  // lie inside the canvas: the windows are drawn then, the frames up to that one, and no meter.
  void Draw(Compose& labels, std::span<const WindowState> windows,
            std::span<const WindowMarks> marks, const Yv12Picture& canvas, std::int32_t aspectX,
            std::int32_t aspectY);

 private:
  void FindSeparateWindows(std::span<const WindowState> windows, std::span<const WindowMarks> marks,
                           const Yv12Picture& canvas);
  void DrawMeter(const WindowState& window, const WindowMarks& marks, const Yv12Picture& canvas);

  // Samples, from even ones on; right and bottom exclusive.
  struct Area {
    std::int64_t left;
    std::int64_t top;
    std::int64_t right;
    std::int64_t bottom;

    bool Meets(const Area& other) const {
      return left < other.right && other.left < right && top < other.bottom && other.top < bottom;
    }
  };
  // What a window touches, apart from its label.
  static Area AreaOf(const WindowState& window);
  static Area LabelAreaOf(const WindowState& window, std::int32_t canvasHeight);

  MeterDrawer meters_;
  // For each window of the frame.
  std::vector<Area> areas_;
  std::vector<Area> labelAreas_;
  std::vector<char> separate_;  // whether everything of it is drawn at once
};
