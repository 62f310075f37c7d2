#include "render/kernels/bar_kernels.h"

#include "render/kernels/fill_pattern.h"
#include "render/meter_colours.h"
#include "render/yv12.h"

namespace kernels {

namespace {

inline void BlendEdge(std::uint8_t& sample, std::uint8_t value) {
  sample = Blend255(sample, value, kBarEdgeOpacity);
}

}  // namespace

void DrawBarLuma(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t width, std::int32_t rows,
                 const std::uint8_t* luma, const std::uint8_t* phases, std::uint8_t phase) {
  for (std::int32_t row = 0; row < rows; ++row) {
    BlendEdge(to[0], luma[row]);
    if (width >= 2) {
      FillDithered(to + 1, width - 2, luma[row] & 0xF8, phases[row] + phase);
      BlendEdge(to[width - 1], luma[row]);
    }
    to += stride;
  }
}

void DrawBarChroma(std::uint8_t* plane, std::ptrdiff_t stride, std::int32_t left, std::int32_t top,
                   std::int32_t width, std::int32_t rows, const std::uint8_t* values) {
  const std::int32_t right = left + width - 1;
  const std::int32_t bottom = top + rows - 1;
  // The samples that the columns between the edges cover; an edge that shares one of them leaves no
  // trace of its own.
  const std::int32_t first = (left + 1) / 2;
  const std::int32_t opaque = width > 2 ? (right - 1) / 2 - first + 1 : 0;
  const bool leftShows = opaque == 0 || left / 2 < first;
  const bool rightShows = width > 1 && (opaque == 0 || right / 2 >= first + opaque);
  for (std::int32_t line = top / 2; line <= bottom / 2; ++line) {
    std::uint8_t* samples = plane + line * stride;
    const auto blendEdges = [&](std::int32_t row) {
      if (leftShows) {
        BlendEdge(samples[left / 2], values[row - top]);
      }
      if (rightShows) {
        BlendEdge(samples[right / 2], values[row - top]);
      }
    };
    std::int32_t last = 2 * line + 1;
    if (last <= bottom) {
      blendEdges(last);
    }
    if (2 * line >= top) {
      last = 2 * line;
      blendEdges(last);
    }
    Fill(samples + first, opaque, values[last - top]);
  }
}

}  // namespace kernels
