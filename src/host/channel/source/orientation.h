// Orientation: how a decoded frame is turned to be upright.
#pragma once

#include <cstdint>

namespace host {

// One of the eight that keep the edges of a frame upright or level: mirrored left to right first,
// then turned clockwise.
struct Orientation {
  int rotation = 0;  // degrees: 0, 90, 180 or 270
  bool mirrored = false;

  // Its width becomes its height.
  bool swapsSides() const { return rotation % 180 != 0; }
  bool operator==(const Orientation&) const = default;
};

// The one nearest to a display matrix of nine numbers (libavutil/display.h), of which only the
// signs and the order of size count; upright where they say nothing. matrix may be null.
Orientation OrientationOf(const std::int32_t* matrix);

}  // namespace host
