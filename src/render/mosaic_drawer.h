// MosaicDrawer: all that is drawn into one frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "render/drawing_engine.h"
#include "render/meters.h"
#include "render/window_state.h"
#include "render/yv12.h"

// Whether the selection borders of all selected windows lie inside the canvas. overlays has one for
// each of windows.
bool SelectionsFit(std::span<const WindowState> windows, std::span<const WindowOverlays> overlays,
                   const Yv12Picture& canvas);

// The picture of a mosaic is what these passes leave behind, one after the other:
//
//   1. the windows in their order, each with its label
//   2. the borders of the selected windows
//   3. the meters
//
// By the time of the last pass the rows of the first windows have left the processor's caches, and
// reading them again costs more than drawing on them. So the overlays of a window are drawn
// together with it wherever that gives the same bytes: where they touch no sample of a picture or
// label that is drawn later, nor of another window's overlays. That is every window of a mosaic
// whose windows do not overlap, adjoining ones included, unless a peak marker hangs out of it. The
// overlays of the others wait for the passes, as all do when a frame cannot be drawn.
//
// Owned by what composes the frames; one thread at a time. Allocates nothing while the windows
// stay where they are and the labels what they are.
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
  // Samples of the canvas, from even ones on; right and bottom exclusive. Nothing when all are 0.
  struct Area {
    std::int64_t left = 0;
    std::int64_t top = 0;
    std::int64_t right = 0;
    std::int64_t bottom = 0;

    // What of a rectangle lies inside the canvas, with all pixels that share its chroma.
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
