#include "host/channel/video/frame_fit.h"

#include <algorithm>
#include <cmath>

namespace host {

namespace {

int EvenNear(double value, int limit) {
  const int even = 2 * static_cast<int>(std::lround(value / 2.0));
  return limit - even <= 2 ? limit : std::clamp(even, 2, limit);
}

}  // namespace

FitRect FitFrame(int width, int height, Ratio pictureAspect, int windowWidth, int windowHeight,
                 Ratio canvasAspect) {
  // Width of the frame in canvas pixels for each canvas pixel of its height.
  const double shape = static_cast<double>(width) * pictureAspect.value() /
                       (static_cast<double>(height) * canvasAspect.value());
  FitRect rect;
  if (shape * windowHeight >= windowWidth) {
    rect.width = windowWidth;
    rect.height = EvenNear(windowWidth / shape, windowHeight);
  } else {
    rect.height = windowHeight;
    rect.width = EvenNear(shape * windowHeight, windowWidth);
  }
  // Chroma samples cover two pixels: an odd offset would shift the colour against the brightness.
  rect.x = (windowWidth - rect.width) / 4 * 2;
  rect.y = (windowHeight - rect.height) / 4 * 2;
  return rect;
}

}  // namespace host
