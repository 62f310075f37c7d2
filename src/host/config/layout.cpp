#include "host/config/layout.h"

#include <algorithm>
#include <cmath>

#include "render/label_font.h"

namespace host::config {

namespace {

constexpr int kSmallestWindow = 16;
constexpr int kEdge = 2;

int Even(int value) {
  return value / 2 * 2;
}

// What all windows of a canvas share.
struct Frame {
  int gap = 0;
  int margin = 0;
  int labelRoom = 0;
  int width = 0;  // inside the margins
  int height = 0;
  double shape = 1;  // width to height of a window in pixels

  Frame(const Canvas& canvas, const LayoutRules& rules, bool labels)
      : gap(rules.gap.value_or(canvas.height / 135)),
        margin(rules.margin.value_or(canvas.height / 135)),
        labelRoom(rules.labelRoom.value_or(labels ? LabelRoom(canvas.height) : 0)),
        width(canvas.width - margin - std::max(margin, kEdge)),
        height(canvas.height - margin - std::max(margin, kEdge)),
        shape(rules.windowAspect.value_or(canvas.aspect).value() / canvas.pixelAspect().value()) {}
};

// Cells of one size; a window may take several.
struct Grid {
  int columns = 0;
  int rows = 0;
  int cellWidth = 0;
  int cellHeight = 0;
};

Grid MakeGrid(const Frame& frame, int columns, int rows) {
  return {columns, rows, (frame.width - frame.gap * (columns - 1)) / columns,
          (frame.height - frame.gap * (rows - 1)) / rows};
}

// The largest even window of the shape in a square of so many cells, with its label's room under
// it. offset: pixels to the right.
Window WindowIn(const Frame& frame, const Grid& grid, int column, int row, int span,
                int offset = 0) {
  const int cellWidth = span * grid.cellWidth + (span - 1) * frame.gap;
  const int cellHeight = span * grid.cellHeight + (span - 1) * frame.gap;
  const int room = std::max(cellHeight - frame.labelRoom, 0);
  Window window;
  window.width = Even(std::min(cellWidth, static_cast<int>(std::lround(room * frame.shape))));
  window.height = Even(std::min(room, static_cast<int>(std::lround(window.width / frame.shape))));
  const int left = frame.margin + offset + column * (grid.cellWidth + frame.gap);
  const int top = frame.margin + row * (grid.cellHeight + frame.gap);
  window.x = Even(left + (cellWidth - window.width) / 2);
  window.y = Even(top + (room - window.height) / 2);
  return window;
}

bool IsLargeEnough(const Window& window) {
  return window.width >= kSmallestWindow && window.height >= kSmallestWindow;
}

// A layout as squares of cells: column, row and number of cells in each direction.
struct Square {
  int column = 0;
  int row = 0;
  int span = 1;
};
struct Pattern {
  int columns = 0;
  int rows = 0;
  std::vector<Square> squares;
};

// Cells of one size, row by row, that no square takes yet.
void FillUp(Pattern& pattern) {
  const std::vector<Square> large = pattern.squares;
  for (int row = 0; row < pattern.rows; ++row) {
    for (int column = 0; column < pattern.columns; ++column) {
      const bool isTaken = std::any_of(large.begin(), large.end(), [&](const Square& square) {
        return column >= square.column && column < square.column + square.span &&
               row >= square.row && row < square.row + square.span;
      });
      if (!isTaken) {
        pattern.squares.push_back({column, row, 1});
      }
    }
  }
}

std::optional<Pattern> PatternOf(const std::string& name) {
  Pattern pattern;
  if (name == "1") {
    pattern = {1, 1, {}};
  } else if (name.size() == 3 && name[1] == 'x' && name[0] == name[2] && name[0] >= '2' &&
             name[0] <= '6') {
    pattern = {name[0] - '0', name[0] - '0', {}};
  } else if (name == "1+5") {
    pattern = {3, 3, {{0, 0, 2}}};
  } else if (name == "1+7") {
    pattern = {4, 4, {{0, 0, 3}}};
  } else if (name == "2+8") {
    pattern = {4, 4, {{0, 0, 2}, {2, 0, 2}}};
  } else {
    return std::nullopt;
  }
  FillUp(pattern);
  return pattern;
}

}  // namespace

int LabelRoom(int canvasHeight) {
  // The label begins a quarter of the font size under its window; a line is 1.6 of it high, with a
  // point of four thirds of a pixel.
  return Even(LabelFontSize(canvasHeight) * 15 / 8);
}

std::optional<std::vector<Window>> LayOutWindows(const Canvas& canvas, const LayoutRules& rules,
                                                 std::size_t count, bool labels) {
  const Frame frame(canvas, rules, labels);
  const int channels = static_cast<int>(count);
  const int first = rules.columns.value_or(1);
  const int last = rules.columns.value_or(channels);
  Grid best;
  Window largest;
  for (int columns = first; columns <= last; ++columns) {
    const Grid grid = MakeGrid(frame, columns, (channels + columns - 1) / columns);
    const Window window = WindowIn(frame, grid, 0, 0, 1);
    if (window.width * window.height > largest.width * largest.height) {
      best = grid;
      largest = window;
    }
  }
  if (!IsLargeEnough(largest)) {
    return {};
  }
  const int inLastRow = channels - (best.rows - 1) * best.columns;
  const int centred = (best.columns - inLastRow) * (best.cellWidth + frame.gap) / 2;
  std::vector<Window> windows;
  for (int i = 0; i < channels; ++i) {
    const int row = i / best.columns;
    windows.push_back(
        WindowIn(frame, best, i % best.columns, row, 1, row == best.rows - 1 ? centred : 0));
  }
  return windows;
}

const std::vector<std::string>& BuiltInLayouts() {
  static const std::vector<std::string> names{"1",   "2x2", "3x3", "4x4", "5x5",
                                              "6x6", "1+5", "1+7", "2+8"};
  return names;
}

bool IsLayoutName(const std::string& name) {
  return !name.empty() && name.size() <= 64 &&
         name.find_first_not_of(
             "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
             " _-+.") == std::string::npos;
}

bool IsReservedLayout(const std::string& name) {
  const std::vector<std::string>& names = BuiltInLayouts();
  return name == "file" || name == "auto" || name == "solo" ||
         std::find(names.begin(), names.end(), name) != names.end();
}

std::optional<std::vector<Window>> BuiltInPlaces(const std::string& name, const Canvas& canvas,
                                                 const LayoutRules& rules, bool labels) {
  const std::optional<Pattern> pattern = PatternOf(name);
  if (!pattern) {
    return std::nullopt;
  }
  const Frame frame(canvas, rules, labels);
  const Grid grid = MakeGrid(frame, pattern->columns, pattern->rows);
  std::vector<Window> windows;
  for (const Square& square : pattern->squares) {
    windows.push_back(WindowIn(frame, grid, square.column, square.row, square.span));
  }
  return std::all_of(windows.begin(), windows.end(), IsLargeEnough) ? std::optional(windows)
                                                                    : std::nullopt;
}

Window SoloWindow(const Canvas& canvas, const LayoutRules& rules, bool label) {
  LayoutRules full = rules;
  full.gap = full.margin = 0;
  if (!label) {
    full.labelRoom = 0;
  }
  const Frame frame(canvas, full, label);
  return WindowIn(frame, MakeGrid(frame, 1, 1), 0, 0, 1);
}

bool CanBeSelected(const Window& window, const Canvas& canvas) {
  return window.x >= 0 && window.y >= 0 && window.x + window.width < canvas.width &&
         window.y + window.height < canvas.height;
}

}  // namespace host::config
