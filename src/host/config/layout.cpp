#include "host/config/layout.h"

#include <algorithm>
#include <cmath>

namespace host::config {

namespace {

constexpr int kSmallestWindow = 16;
constexpr int kEdge = 2;

int Even(int value) {
  return value / 2 * 2;
}

struct Grid {
  int columns = 0;
  int cellWidth = 0;
  int cellHeight = 0;
  int width = 0;
  int height = 0;
};

// The largest even window of the shape (width to height in pixels) in the cells of so many columns.
Grid FitGrid(int columns, int rows, int width, int height, int gap, int labelRoom, double shape) {
  Grid grid;
  grid.columns = columns;
  grid.cellWidth = (width - gap * (columns - 1)) / columns;
  grid.cellHeight = (height - gap * (rows - 1)) / rows;
  const int room = std::max(grid.cellHeight - labelRoom, 0);
  grid.width = Even(std::min(grid.cellWidth, static_cast<int>(room * shape)));
  grid.height = Even(std::min(room, static_cast<int>(std::lround(grid.width / shape))));
  return grid;
}

}  // namespace

int LabelFontSize(int canvasHeight) {
  const double size = std::clamp(canvasHeight * 16.0 / 1080.0, 8.0, 48.0);
  return static_cast<int>(std::lround(size));
}

int LabelRoom(int canvasHeight) {
  // The label begins a quarter of the font size under its window and ends four below it.
  return Even(4 * LabelFontSize(canvasHeight) + 3);
}

std::optional<std::vector<Window>> LayOutWindows(const Canvas& canvas, const LayoutRules& rules,
                                                 std::size_t count, bool labels) {
  const int gap = rules.gap.value_or(canvas.height / 90);
  const int margin = rules.margin.value_or(canvas.height / 45);
  const int labelRoom = rules.labelRoom.value_or(labels ? LabelRoom(canvas.height) : 0);
  const int width = canvas.width - margin - std::max(margin, kEdge);
  const int height = canvas.height - margin - std::max(margin, kEdge);
  const double shape =
      rules.windowAspect.value_or(canvas.aspect).value() / canvas.pixelAspect().value();

  Grid best;
  const int channels = static_cast<int>(count);
  const int first = rules.columns.value_or(1);
  const int last = rules.columns.value_or(channels);
  for (int columns = first; columns <= last; ++columns) {
    const int rows = (channels + columns - 1) / columns;
    const Grid grid = FitGrid(columns, rows, width, height, gap, labelRoom, shape);
    if (grid.width * grid.height > best.width * best.height) {
      best = grid;
    }
  }
  if (best.width < kSmallestWindow || best.height < kSmallestWindow) {
    return {};
  }
  std::vector<Window> windows;
  for (int i = 0; i < channels; ++i) {
    const int left = margin + i % best.columns * (best.cellWidth + gap);
    const int top = margin + i / best.columns * (best.cellHeight + gap);
    windows.push_back({Even(left + (best.cellWidth - best.width) / 2),
                       Even(top + (best.cellHeight - labelRoom - best.height) / 2), best.width,
                       best.height});
  }
  return windows;
}

}  // namespace host::config
