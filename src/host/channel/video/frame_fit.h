// Where a frame goes inside its window.
#pragma once

#include "host/units.h"

namespace host {

// In pixels of the window; all four are even.
struct FitRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;

  bool operator==(const FitRect&) const = default;
};

// The largest centred rectangle in a window (even size, at least 2x2) that shows a frame of
// width x height samples, each of the shape pictureAspect, undistorted on canvas pixels of the
// shape canvasAspect. A frame that misses the window by two pixels or less fills it: bars that
// thin look like faults.
FitRect FitFrame(int width, int height, Ratio pictureAspect, int windowWidth, int windowHeight,
                 Ratio canvasAspect);

}  // namespace host
