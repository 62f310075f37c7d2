// The fastest road of a meter's bars: all bars of a panel at once, with the darkening of the panel
// around them.
//
// Where bars are opaque, nothing of the picture shows and their rows are only stored. What is left
// between them is narrow: their edges, the gaps and the frame of the panel. It is covered by strips
// of eight columns, and each pair of rows of a strip (16 luma samples, four chroma samples in each
// plane) is darkened and blended with the bars' edges in one go:
//
//   column    0  1  2  3  4  5 ... 20 21 22 23 24 25 26 27 28 29 30 31 ...
//             |frame  |              bar |  gap |  bar
//             |  |edge| opaque ...  edge |      |edge | opaque ...
//   strip     [------ 0 ------]  [------ 1 ------]
//
// The opaque columns of a strip are blended as well and stored over afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "render/kernels/drawing_kernels.h"

namespace kernels {

// The samples of one bar in a pair of rows, the upper row first; two bars fill a vector.
struct BarPair {
  std::uint8_t luma[2];
  std::uint8_t v[2];
  std::uint8_t u[2];
  std::uint8_t unused[2];
};
static_assert(sizeof(BarPair) == 8);

// A strip, the same for all its rows. A lane of luma is darkened, then becomes (lane * kept +
// added) / 255, rounded, where `added` is a constant and 128 times the byte that `bars` picks from
// the samples of the strip's two bars. The lanes are the eight columns of the upper row, then those
// of the lower one. A chroma sample is blended twice like that, with the lower row's colour and
// with the upper one's; four lanes of V come before four of U.
struct BarStrip {
  alignas(32) std::uint16_t lumaKept[16];
  std::uint16_t lumaAdded[16];
  std::uint8_t lumaBars[32];  // byte shuffles; the high bit picks 0
  std::uint16_t chromaKept[8];
  std::uint8_t lowerBars[16];
  std::uint8_t upperBars[16];
  std::int32_t column;    // of the panel, even
  std::int32_t sample;    // of its chroma: half of that
  std::int32_t firstBar;  // of the two
};

// The darkening of a pair of rows in one strip: what is kept of each luma lane, in 1/255, and the
// factors of each chroma lane.
struct StripPair {
  alignas(32) std::uint16_t lumaKept[16];
  std::int16_t fade[kFadeLayers][8];
};

// The opaque part of a bar.
struct BarFill {
  std::int32_t column;  // of the panel
  std::int32_t columns;
  std::int32_t sample;  // of the panel's chroma
  std::int32_t samples;
};

// The pairs of rows in which all bars stand.
struct BarRun {
  std::uint8_t* luma;  // of the panel's first column, in the first row
  std::uint8_t* v;
  std::uint8_t* u;
  std::ptrdiff_t lumaStride;
  std::ptrdiff_t chromaStride;
  std::int32_t pairs;
  std::uint8_t panelLuma;  // what luma is darkened towards
  std::span<const BarStrip> strips;
  const StripPair* darkening;  // strips.size() for each pair of rows
  std::span<const BarFill> fills;
  const BarPair* bars;         // fills.size() for each pair of rows, and one more behind the last
  const std::uint8_t* phases;  // of the dither, for each row
  std::uint32_t phase;         // of the panel's column 0
};

}  // namespace kernels
