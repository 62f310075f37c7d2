#include "host/channel/source/orientation.h"

#include <cstdlib>

namespace host {

// A point (x, y) of the frame, y downwards, goes to (a x + c y, b x + d y).
Orientation OrientationOf(const std::int32_t* matrix) {
  if (matrix == nullptr) {
    return {};
  }
  std::int64_t a = matrix[0];
  std::int64_t b = matrix[1];
  const std::int64_t c = matrix[3];
  const std::int64_t d = matrix[4];
  const bool swapsSides = std::abs(b) + std::abs(c) > std::abs(a) + std::abs(d);
  Orientation orientation;
  if (swapsSides ? b == 0 || c == 0 : a == 0 || d == 0) {
    return orientation;
  }
  orientation.mirrored = swapsSides ? (b < 0) == (c < 0) : (a < 0) != (d < 0);
  if (orientation.mirrored) {
    a = -a;
    b = -b;
  }
  if (swapsSides) {
    orientation.rotation = b > 0 ? 90 : 270;
  } else {
    orientation.rotation = a > 0 ? 0 : 180;
  }
  return orientation;
}

}  // namespace host
