#include "render/kernels/overlay_kernels.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "render/kernels/samples.h"

namespace kernels {

namespace {

template <typename T>
TAVREL_INLINE T Limit(T value, T low, T high) {
  return value < low ? low : value > high ? high : value;
}

// Each pixel is converted once, and rows are summed before columns. Plain loops that the compiler
// vectorises.

// Columns of a strip; what is kept of its rows fits the first-level cache.
constexpr std::int32_t kStrip = 256;

// Columns [first, first + count), and their neighbours to the left and to the right.
struct Strip {
  std::int32_t first;
  std::int32_t count;
  std::int32_t before;
  std::int32_t after;
};

// Rows of a strip that the next blocks need: row y is at index y % 4.
template <typename Row>
using RowRing = std::array<Row, 4>;

// Runs `convertRow(y, row)` for each row that a block needs and that is not converted yet, then
// `sumRows(by, above, first, second, below)` for the block's four.
template <typename Row, typename ConvertRow, typename SumRows>
TAVREL_INLINE void ForEachBlockRow(std::int32_t height, const PlaneBounds& blocks,
                                   RowRing<Row>& rows, const ConvertRow& convertRow,
                                   const SumRows& sumRows) {
  const std::int32_t lastRow = height - 1;
  std::int32_t nextRow = 2 * blocks.top - 1 > 0 ? 2 * blocks.top - 1 : 0;
  for (std::int32_t by = blocks.top; by < blocks.bottom; ++by) {
    const std::int32_t above = 2 * by - 1 > 0 ? 2 * by - 1 : 0;
    const std::int32_t below = 2 * by + 2 < lastRow ? 2 * by + 2 : lastRow;
    for (; nextRow <= below; ++nextRow) {
      convertRow(nextRow, rows[static_cast<std::size_t>(nextRow % 4)]);
    }
    sumRows(by, rows[static_cast<std::size_t>(above % 4)],
            rows[static_cast<std::size_t>(2 * by % 4)],
            rows[static_cast<std::size_t>((2 * by + 1) % 4)],
            rows[static_cast<std::size_t>(below % 4)]);
  }
}

// Takes luma and opacity of a row that only neighbours the blocks, which are not written to the
// overlay.
struct SpareRow {
  std::array<std::uint8_t, kStrip> luma;
  std::array<std::uint8_t, kStrip> alpha;
};

TAVREL_INLINE bool IsOwnRow(std::int32_t y, const PlaneBounds& blocks) {
  return y >= 2 * blocks.top && y < 2 * blocks.bottom;
}

// Opacity, and the two chroma values times opacity, of one row of a strip and of its neighbours to
// the left and to the right. Every sum fits 32 bits: chroma times opacity times all weights is at
// most 61426 * 255 * 20.
struct PixelRow {
  std::array<std::int32_t, kStrip + 2> a;
  std::array<std::int32_t, kStrip + 2> p;
  std::array<std::int32_t, kStrip + 2> q;
};

TAVREL_INLINE void ConvertPixels(const std::uint8_t* pixels, std::int32_t count, PixelRow& row,
                                 std::int32_t at, std::uint8_t* __restrict luma,
                                 std::uint8_t* __restrict alpha) {
  static_assert(std::endian::native == std::endian::little);
  std::int32_t* __restrict const outA = row.a.data() + at;
  std::int32_t* __restrict const outP = row.p.data() + at;
  std::int32_t* __restrict const outQ = row.q.data() + at;
  for (std::int32_t i = 0; i < count; ++i) {
    std::uint32_t pixel;
    std::memcpy(&pixel, pixels + std::ptrdiff_t{i} * 4, 4);
    const std::uint32_t c0 = pixel & 0xFF;
    const std::uint32_t c1 = (pixel >> 8) & 0xFF;
    const std::uint32_t c2 = (pixel >> 16) & 0xFF;
    const std::uint32_t a = pixel >> 24;
    // Unsigned: up to 3.7e9.
    const std::uint32_t y = ((4311745 * c0 + 8455717 * c1 + 1644167 * c2 + 32768) >> 16) + 4096;
    const auto b = static_cast<std::int32_t>(c0);
    const auto g = static_cast<std::int32_t>(c1);
    const auto r = static_cast<std::int32_t>(c2);
    const auto opacity = static_cast<std::int32_t>(a);
    luma[i] = static_cast<std::uint8_t>((y + 128) >> 8);  // 16 to 235 for every colour
    alpha[i] = static_cast<std::uint8_t>(a);
    outA[i] = opacity;
    outP[i] = (((-2483028 * b - 4882170 * g + 7365198 * r + 32768) >> 16) + 32768) * opacity;
    outQ[i] = (((7365198 * b - 6174015 * g - 1191182 * r + 32768) >> 16) + 32768) * opacity;
  }
}

// The quotient without its fraction: a double holds both numbers exactly, and no quotient of 32-bit
// numbers is so close below a whole number that it would be rounded to it.
TAVREL_INLINE std::uint8_t MeanChroma(std::int32_t sum, std::int32_t weight) {
  const std::int32_t divisor = weight == 0 ? 1 : weight;
  const auto mean =
      static_cast<std::int32_t>(static_cast<double>(sum) / static_cast<double>(divisor));
  return static_cast<std::uint8_t>(weight == 0 ? 128 : Limit((mean + 128) >> 8, 16, 240));
}

TAVREL_INLINE void ConvertPixelStrip(const ArgbRows& bitmap, const OverlayPlanes& to,
                                     const PlaneBounds& blocks, const Strip& strip) {
  RowRing<PixelRow> rows;
  SpareRow spare;
  std::array<std::int32_t, kStrip / 2> weights;
  std::array<std::int32_t, kStrip / 2> firsts;
  std::array<std::int32_t, kStrip / 2> seconds;
  const std::int32_t first = strip.first;
  const std::int32_t count = strip.count;
  const std::int32_t columns = count / 2;

  const auto convertRow = [&](std::int32_t y, PixelRow & row) __attribute__((always_inline)) {
    const std::uint8_t* const pixels = bitmap.pixels + y * bitmap.stride;
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(y) * to.width + first;
    const bool own = IsOwnRow(y, blocks);
    std::uint8_t neighbour[2];
    ConvertPixels(pixels + std::ptrdiff_t{strip.before} * 4, 1, row, 0, neighbour, neighbour + 1);
    ConvertPixels(pixels + std::ptrdiff_t{first} * 4, count, row, 1,
                  own ? to.luma + at : spare.luma.data(), own ? to.alpha + at : spare.alpha.data());
    ConvertPixels(pixels + std::ptrdiff_t{strip.after} * 4, 1, row, count + 1, neighbour,
                  neighbour + 1);
  };
  const auto sumRows = [&](std::int32_t by, const PixelRow& r0, const PixelRow& r1,
                           const PixelRow& r2, const PixelRow& r3) __attribute__((always_inline)) {
    const auto sum = [columns](const std::int32_t* __restrict v0, const std::int32_t* __restrict v1,
                               const std::int32_t* __restrict v2, const std::int32_t* __restrict v3,
                               std::int32_t* __restrict sums) __attribute__((always_inline)) {
      for (std::int32_t j = 0; j < columns; ++j) {
        const std::int32_t c = 2 * j;
        const std::int32_t inner = v1[c + 1] + v1[c + 2] + v2[c + 1] + v2[c + 2];
        sums[j] = 3 * inner + v1[c] + v1[c + 3] + v2[c] + v2[c + 3] + v0[c + 1] + v0[c + 2] +
                  v3[c + 1] + v3[c + 2];
      }
    };
    sum(r0.a.data(), r1.a.data(), r2.a.data(), r3.a.data(), weights.data());
    sum(r0.p.data(), r1.p.data(), r2.p.data(), r3.p.data(), firsts.data());
    sum(r0.q.data(), r1.q.data(), r2.q.data(), r3.q.data(), seconds.data());
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(by) * (to.width / 2) + first / 2;
    std::uint8_t* __restrict const firstChroma = to.firstChroma + at;
    std::uint8_t* __restrict const secondChroma = to.secondChroma + at;
    std::uint8_t* __restrict const chromaAlpha = to.chromaAlpha + at;
    for (std::int32_t j = 0; j < columns; ++j) {
      firstChroma[j] =
          MeanChroma(firsts[static_cast<std::size_t>(j)], weights[static_cast<std::size_t>(j)]);
    }
    for (std::int32_t j = 0; j < columns; ++j) {
      secondChroma[j] =
          MeanChroma(seconds[static_cast<std::size_t>(j)], weights[static_cast<std::size_t>(j)]);
    }
    for (std::int32_t j = 0; j < columns; ++j) {
      chromaAlpha[j] = static_cast<std::uint8_t>((weights[static_cast<std::size_t>(j)] + 10) / 20);
    }
  };
  ForEachBlockRow(to.height, blocks, rows, convertRow, sumRows);
}

// Only opacities are summed, at most 20 * 255.
using OpacityRow = std::array<std::uint16_t, kStrip + 2>;

TAVREL_INLINE bool OpacityIsCoverage(const CoverageBitmap& bitmap) {
  bool isSame = true;
  for (std::size_t i = 0; i < bitmap.opacities.size(); ++i) {
    isSame &= bitmap.opacities[i] == i;
  }
  return isSame;
}

TAVREL_INLINE void ConvertCoverageStrip(const CoverageBitmap& bitmap, bool opacityIsCoverage,
                                        const OverlayPlanes& to, const PlaneBounds& blocks,
                                        const Strip& strip) {
  RowRing<OpacityRow> rows;
  SpareRow spare;
  std::array<std::uint16_t, kStrip> sums;
  const std::int32_t first = strip.first;
  const std::int32_t count = strip.count;

  const auto convertRow = [&](std::int32_t y, OpacityRow & row) __attribute__((always_inline)) {
    const std::uint8_t* const coverage = bitmap.coverage + y * bitmap.stride;
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(y) * to.width + first;
    const bool own = IsOwnRow(y, blocks);
    std::uint8_t* __restrict const alpha = own ? to.alpha + at : spare.alpha.data();
    if (opacityIsCoverage) {
      std::memcpy(alpha, coverage + first, static_cast<std::size_t>(count));
    } else {
      for (std::int32_t i = 0; i < count; ++i) {
        alpha[i] = bitmap.opacities[coverage[first + i]];
      }
    }
    row[0] = bitmap.opacities[coverage[strip.before]];
    std::uint16_t* __restrict const opacities = row.data() + 1;
    for (std::int32_t i = 0; i < count; ++i) {
      opacities[i] = alpha[i];
    }
    row[static_cast<std::size_t>(count) + 1] = bitmap.opacities[coverage[strip.after]];
  };
  const auto sumRows = [&](std::int32_t by, const OpacityRow& r0, const OpacityRow& r1,
                           const OpacityRow& r2, const OpacityRow& r3)
      __attribute__((always_inline)) {
    OpacityRow inner;
    OpacityRow outer;
    for (std::int32_t c = 0; c < count + 2; ++c) {
      const auto i = static_cast<std::size_t>(c);
      inner[i] = static_cast<std::uint16_t>(r1[i] + r2[i]);
      outer[i] = static_cast<std::uint16_t>(r0[i] + r3[i]);
    }
    // For every column, although only every other one starts a block: contiguous sums are
    // vectorised.
    for (std::int32_t c = 0; c < count - 1; ++c) {
      const auto i = static_cast<std::size_t>(c);
      sums[i] = static_cast<std::uint16_t>(3 * (inner[i + 1] + inner[i + 2]) + inner[i] +
                                           inner[i + 3] + outer[i + 1] + outer[i + 2]);
    }
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(by) * (to.width / 2) + first / 2;
    std::uint8_t* __restrict const chromaAlpha = to.chromaAlpha + at;
    for (std::int32_t j = 0; j < count / 2; ++j) {
      const std::uint16_t sum = sums[std::size_t{2} * static_cast<std::size_t>(j)];
      chromaAlpha[j] = static_cast<std::uint8_t>(static_cast<std::uint16_t>(sum + 10) / 20);
    }
  };
  ForEachBlockRow(to.height, blocks, rows, convertRow, sumRows);
}

template <typename ConvertStrip>
TAVREL_INLINE void ForEachStrip(std::int32_t width, const PlaneBounds& blocks,
                                const ConvertStrip& convertStrip) {
  for (std::int32_t first = 2 * blocks.left; first < 2 * blocks.right; first += kStrip) {
    const std::int32_t rest = 2 * blocks.right - first;
    const std::int32_t count = rest < kStrip ? rest : kStrip;
    convertStrip(Strip{first, count, first > 0 ? first - 1 : 0,
                       first + count < width ? first + count : width - 1});
  }
}

TAVREL_INLINE void ConvertPixelsInStrips(const ArgbRows& bitmap, const OverlayPlanes& to,
                                         const PlaneBounds& blocks) {
  ForEachStrip(
      to.width, blocks, [&](const Strip& strip) __attribute__((always_inline)) {
        ConvertPixelStrip(bitmap, to, blocks, strip);
      });
}

TAVREL_INLINE void ConvertCoverageInStrips(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                                           const PlaneBounds& blocks) {
  const bool opacityIsCoverage = OpacityIsCoverage(bitmap);
  ForEachStrip(
      to.width, blocks, [&](const Strip& strip) __attribute__((always_inline)) {
        ConvertCoverageStrip(bitmap, opacityIsCoverage, to, blocks, strip);
      });
}

}  // namespace

void ConvertPixels(const ArgbRows& bitmap, const OverlayPlanes& to, const PlaneBounds& blocks) {
  ConvertPixelsInStrips(bitmap, to, blocks);
}
void ConvertCoverage(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                     const PlaneBounds& blocks) {
  ConvertCoverageInStrips(bitmap, to, blocks);
}

#if defined(__x86_64__)
TAVREL_AVX2 void ConvertPixelsAvx2(const ArgbRows& bitmap, const OverlayPlanes& to,
                                   const PlaneBounds& blocks) {
  ConvertPixelsInStrips(bitmap, to, blocks);
}
TAVREL_AVX2 void ConvertCoverageAvx2(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                                     const PlaneBounds& blocks) {
  ConvertCoverageInStrips(bitmap, to, blocks);
}
#endif

}  // namespace kernels
