// The drawing engine: windows with their labels and selection borders, and MosaicDrawer, which
// draws a whole frame.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "render/meters.h"
#include "render/text_renderer.h"
#include "render/yv12.h"
#include "util/exceptions.h"

// What one input contributes to a composed frame. Collected for every frame by the frame loop;
// picture points into a sample that is held until the frame is done.
struct WindowState {
  const std::uint8_t* picture = nullptr;  // YV12 of w x h pixels; null: not drawn
  bool enabled = false;
  std::int32_t x = 0;  // top left corner in the canvas, pixels, even
  std::int32_t y = 0;
  std::int32_t w = 0;  // pixels
  std::int32_t h = 0;

  bool IsDrawn() const { return enabled && picture != nullptr; }
};

// What is drawn over a window's frame.
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

// Where the label of a window lies: a quarter of the font size below it, as wide as the window and
// four font sizes high. None when that is far outside of any canvas.
std::optional<LabelRect> LabelRectOf(const WindowState& window, std::int32_t canvasHeight);

// The line of text under a window. Owned by the drawing engine, one for each window; used by the
// drawing thread only.
class Label {
 public:
  Label();

  // UTF-8; invalid sequences show as replacement characters. Kept until the next call; an empty
  // text shows no label.
  void SetText(std::string_view text);
  const std::string& Text() const { return text_; }
  TextRenderer& Renderer() { return renderer_; }

  // Draws the text into the label's rectangle under the window, as far as that lies inside the
  // canvas.
  void Draw(const WindowState& window, const Yv12Picture& canvas,
            const qorp::WideRatio& pixelAspect);

 private:
  std::string text_;
  std::u16string wideText_;  // of text_, once it is drawn
  bool wideTextIsOld_ = false;
  TextRenderer renderer_;
};

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

// Sets the text colour of a window's label from the text that a host gave. A null or invalid text
// keeps the present colour; like every first assignment, it may still count as a change. A window
// without a label is ignored.
void ParseLabelColour(Compose& labels, std::int32_t windowIndex, const char* text);

// Copies the frame of a window into the canvas, unscaled and clipped, and draws its label under it;
// does nothing for a window that is not enabled or has no frame.
void DrawWindow(Label& label, const WindowState& window, const Yv12Picture& canvas,
                const qorp::WideRatio& pixelAspect);

// A bar of a selection border does not lie inside the canvas.
class BadConfigException : public TavrelException {
 public:
  const char* what() const noexcept override { return "Cannot draw selector: bad config"; }
};

// Fills the w x h pixels at (x, y) of the W x H canvas with opaque red. Throws BadConfigException,
// with nothing drawn, for a negative position or size and for a bar that reaches the last column or
// row of the canvas: a border keeps one pixel away from the right and bottom edges. The chroma
// samples that an odd bar shares with its neighbours turn red as well.
void DrawSelectorBar(std::uint8_t* canvas, std::int32_t W, std::int32_t H, std::int32_t x,
                     std::int32_t y, std::int32_t w, std::int32_t h);

// One bar of a selection border, in canvas pixels.
struct SelectorBar {
  std::int32_t x;
  std::int32_t y;
  std::int32_t w;
  std::int32_t h;
};

// The top, bottom, left and right bar of the selection border inside a window, a 150th of the
// canvas's height thick. A window may be anywhere: positions beyond 32 bits are clamped.
std::array<SelectorBar, 4> SelectorFrame(const WindowState& window, std::int32_t canvasHeight);

// Whether all bars of the window's selection border can be drawn.
bool SelectorFits(const WindowState& window, const Yv12Picture& canvas);

// Draws the four bars in their order. Throws BadConfigException at the first one that does not fit;
// those before it stay drawn.
void DrawSelector(const WindowState& window, const Yv12Picture& canvas);

// Whether the selection borders of all selected windows lie inside the canvas. overlays has one for
// each of windows.
bool SelectionsFit(std::span<const WindowState> windows, std::span<const WindowOverlays> overlays,
                   const Yv12Picture& canvas);

// A mosaic looks as if it were drawn in these passes, one after the other:
//
//   1. the windows in their order, each with its label
//   2. the borders of the selected windows
//   3. the meters
//
// By the time of the last pass the rows of the first windows have left the processor's caches, and
// reading them again costs more than drawing on them. So the overlays of a window are drawn
// together with it wherever that gives the same bytes: where they touch no sample of a window or
// label that is drawn later, nor of another window's overlays. That is every window of a mosaic
// whose windows do not overlap, adjoining ones included, unless a peak marker extends beyond it.
// The overlays of the others are drawn in passes 2 and 3, as all are when a frame cannot be drawn.
//
// Owned by the frame composer; one thread at a time. Allocates nothing while windows and labels do
// not change.
class MosaicDrawer {
 public:
  // The canvas is shown at the display aspect. The first window takes the first label, and so on;
  // windows beyond the last label are not drawn, but their overlays are. overlays has one for each
  // window. Throws BadConfigException when the border of a selected window does not lie inside the
  // canvas: the windows are drawn then, the borders up to that one, and no meter.
  void Draw(Compose& labels, std::span<const WindowState> windows,
            std::span<const WindowOverlays> overlays, const Yv12Picture& canvas,
            const qorp::Ratio& displayAspect);

 private:
  // An area of the canvas, left and top even, right and bottom exclusive. Empty when all are 0.
  struct Area {
    std::int64_t left = 0;
    std::int64_t top = 0;
    std::int64_t right = 0;
    std::int64_t bottom = 0;

    // The part of a rectangle that lies inside the canvas, with all pixels that share its chroma.
    static Area Of(std::int64_t left, std::int64_t top, std::int64_t right, std::int64_t bottom,
                   const Yv12Picture& canvas);
    bool IsEmpty() const { return right == 0; }
    void Include(const Area& other);
    bool Meets(const Area& other) const {
      return left < other.right && other.left < right && top < other.bottom && other.top < bottom;
    }
  };
  // What a window touches.
  struct Footprint {
    Area picture;
    Area label;
    Area overlays;
    bool isSeparate = false;  // whether its overlays are drawn together with it
  };

  static Area OverlayArea(const WindowState& window, const WindowOverlays& overlays,
                          const Yv12Picture& canvas);
  void FindSeparateWindows(Compose& labels, std::span<const WindowState> windows,
                           std::span<const WindowOverlays> overlays, const Yv12Picture& canvas);

  MeterDrawer meters_;
  std::vector<Footprint> footprints_;  // one for each window of the frame
};
