// The meters of a mosaic, drawn frame after frame.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "render/meter_strips.h"
#include "render/meter_tables.h"
#include "render/meters.h"
#include "render/table_cache.h"

// Draws whole meters with the bytes of the operations of meters.h, for a fraction of their time: a
// panel's darkening and the rows of its bars depend on the place and the size of the panel only and
// are kept between frames. Windows of the same size share them.
//
// Owned by whoever composes the frames; one thread at a time.
class MeterDrawer {
 public:
  // Whether a panel of that size shows at all.
  static bool Shows(std::int32_t width, std::int32_t height) { return width >= 1 && height >= 1; }
  // The meter of a window at (x, y) of the canvas. width: a tenth of the window's, height: the
  // window's, in pixels; with either below 1 nothing is drawn. levels and peaks: one for each
  // channel, 1 is full scale; without channels the panel has no bars.
  void Draw(const Yv12Picture& canvas, std::int32_t x, std::int32_t y, std::int32_t width,
            std::int32_t height, std::span<const float> levels, std::span<const float> peaks,
            bool alarm);

 private:
  void DrawInside(const MeterPanel& panel, std::span<const float> levels,
                  std::span<const float> peaks);
  void DrawBarByBar(const MeterPanel& panel, std::span<const float> levels,
                    std::span<const float> peaks);
  void DrawInStrips(const MeterPanel& panel, std::span<const float> levels,
                    std::span<const float> peaks);

  TableCache<VignetteTable, 2> vignettes_;  // by width and height
  TableCache<StripTable, 3> strips_;        // by width, height and channels
  TableCache<BarTable, 2> bars_;            // by the row of the foot and the length
  // Of the bars that are being drawn; they only grow.
  BarRows rows_{0};
  std::vector<kernels::BarPair> pairs_;
  std::vector<std::int32_t> lit_;  // rows of each bar
};
