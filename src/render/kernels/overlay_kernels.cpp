#include "render/kernels/overlay_kernels.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "render/overlay.h"

namespace kernels {

namespace {

#define TAVREL_INLINE inline __attribute__((always_inline))

template <typename T>
TAVREL_INLINE T Limit(T value, T least, T most) {
  return value < least ? least : value > most ? most : value;
}

// The definition.
void ConvertScalar(const OverlayBlocks& b) {
  // How much each pixel around a block counts for the block's chroma.
  static constexpr std::array<std::array<std::int32_t, 4>, 4> kWeights{
      {{0, 1, 1, 0}, {1, 3, 3, 1}, {1, 3, 3, 1}, {0, 1, 1, 0}}};
  for (std::int32_t by = b.top; by < b.bottom; ++by) {
    for (std::int32_t bx = b.left; bx < b.right; ++bx) {
      std::int64_t weight = 0;
      std::int64_t p = 0;
      std::int64_t q = 0;
      for (std::int32_t i = 0; i < 4; ++i) {
        const std::int32_t row = std::clamp(2 * by - 1 + i, 0, b.height - 1);
        for (std::int32_t k = 0; k < 4; ++k) {
          const std::int32_t column = std::clamp(2 * bx - 1 + k, 0, b.width - 1);
          const std::uint8_t* pixel = b.pixels + row * b.stride + std::ptrdiff_t{column} * 4;
          const Ycbcr88 colour = RgbToYcbcr601(pixel[0], pixel[1], pixel[2]);
          if ((i == 1 || i == 2) && (k == 1 || k == 2)) {
            const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(row) * b.width + column;
            b.luma[at] = static_cast<std::uint8_t>(Limit((colour.y + 128) >> 8, 16, 235));
            b.alpha[at] = pixel[3];
          }
          const std::int64_t weighted = std::int64_t{kWeights[i][k]} * pixel[3];
          weight += weighted;
          p += weighted * colour.p;
          q += weighted * colour.q;
        }
      }
      const auto chroma = [&](std::int64_t sum) -> std::uint8_t {
        return weight == 0 ? 128
                           : static_cast<std::uint8_t>(
                                 Limit<std::int64_t>((sum / weight + 128) >> 8, 16, 240));
      };
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(by) * (b.width / 2) + bx;
      b.firstChroma[at] = chroma(p);
      b.secondChroma[at] = chroma(q);
      // The weights are those of the inner and the edge alphas in the chroma's opacity as well.
      b.chromaAlpha[at] = static_cast<std::uint8_t>((weight + 10) / 20);
    }
  }
}

// The fast versions convert each pixel once and sum rows before columns. Plain loops that the
// compiler vectorises; every sum fits 32 bits: luma without sign up to 3.7e9, chroma times opacity
// times all weights up to 61426 * 255 * 20.

// Columns of a strip; what is kept of its rows fits the first-level cache.
constexpr std::int32_t kStrip = 256;

// Opacity, and the two chroma values times opacity, of one row of a strip and of its neighbours to
// the left and to the right.
struct RowSums {
  std::array<std::int32_t, kStrip + 2> a;
  std::array<std::int32_t, kStrip + 2> p;
  std::array<std::int32_t, kStrip + 2> q;
};

struct Strip {
  std::array<RowSums, 4> rows;  // row y is in place y % 4
  std::array<std::uint8_t, kStrip> spareLuma;
  std::array<std::uint8_t, kStrip> spareAlpha;
};

// A text has one colour in many opacities: the mean of its chroma is that colour's, whatever the
// weights, and need not be summed up. kOneColour: only opacities are summed.
template <bool kOneColour>
TAVREL_INLINE void ConvertPixels(const std::uint8_t* pixels, std::int32_t count, RowSums& sums,
                                 std::int32_t at, std::uint8_t* __restrict luma,
                                 std::uint8_t* __restrict alpha) {
  static_assert(std::endian::native == std::endian::little);
  std::int32_t* __restrict const outA = sums.a.data() + at;
  std::int32_t* __restrict const outP = sums.p.data() + at;
  std::int32_t* __restrict const outQ = sums.q.data() + at;
  for (std::int32_t i = 0; i < count; ++i) {
    std::uint32_t pixel;
    std::memcpy(&pixel, pixels + std::ptrdiff_t{i} * 4, 4);
    const std::uint32_t c0 = pixel & 0xFF;
    const std::uint32_t c1 = (pixel >> 8) & 0xFF;
    const std::uint32_t c2 = (pixel >> 16) & 0xFF;
    const std::uint32_t a = pixel >> 24;
    const std::uint32_t y = ((4311745 * c0 + 8455717 * c1 + 1644167 * c2 + 32768) >> 16) + 4096;
    const auto b = static_cast<std::int32_t>(c0);
    const auto g = static_cast<std::int32_t>(c1);
    const auto r = static_cast<std::int32_t>(c2);
    const auto opacity = static_cast<std::int32_t>(a);
    luma[i] = static_cast<std::uint8_t>((y + 128) >> 8);  // 16 to 235 for every colour
    alpha[i] = static_cast<std::uint8_t>(a);
    outA[i] = opacity;
    if constexpr (kOneColour) {
      continue;
    }
    outP[i] = (((-2483028 * b - 4882170 * g + 7365198 * r + 32768) >> 16) + 32768) * opacity;
    outQ[i] = (((7365198 * b - 6174015 * g - 1191182 * r + 32768) >> 16) + 32768) * opacity;
  }
}

// Row y of columns [first, first + count), with its neighbours. luma and alpha: the overlay's.
template <bool kOneColour>
TAVREL_INLINE void ConvertRow(const OverlayBlocks& b, std::int32_t y, std::int32_t first,
                              std::int32_t count, RowSums& sums, std::uint8_t* luma,
                              std::uint8_t* alpha) {
  const std::uint8_t* const row = b.pixels + y * b.stride;
  std::uint8_t spare[2];
  const std::int32_t before = first > 0 ? first - 1 : 0;
  const std::int32_t after = first + count < b.width ? first + count : b.width - 1;
  ConvertPixels<kOneColour>(row + std::ptrdiff_t{before} * 4, 1, sums, 0, spare, spare + 1);
  ConvertPixels<kOneColour>(row + std::ptrdiff_t{first} * 4, count, sums, 1, luma, alpha);
  ConvertPixels<kOneColour>(row + std::ptrdiff_t{after} * 4, 1, sums, count + 1, spare, spare + 1);
}

// The quotient without its fraction: a double holds both exactly, and no quotient of 32-bit numbers
// comes so near to the next whole number that it would be rounded to it.
TAVREL_INLINE std::uint8_t MeanChroma(std::int32_t sum, std::int32_t weight) {
  const std::int32_t divisor = weight == 0 ? 1 : weight;
  const auto mean =
      static_cast<std::int32_t>(static_cast<double>(sum) / static_cast<double>(divisor));
  return static_cast<std::uint8_t>(weight == 0 ? 128 : Limit((mean + 128) >> 8, 16, 240));
}

// colour: a pixel of the one colour.
template <bool kOneColour>
TAVREL_INLINE void ConvertStrip(const OverlayBlocks& b, std::int32_t first, std::int32_t count,
                                std::uint32_t colour) {
  Strip strip;
  std::array<std::int32_t, kStrip / 2> weights;
  std::array<std::int32_t, kStrip / 2> firsts;
  std::array<std::int32_t, kStrip / 2> seconds;
  const std::int32_t blocks = count / 2;
  const std::int32_t lastRow = b.height - 1;
  std::int32_t nextRow = 2 * b.top - 1 > 0 ? 2 * b.top - 1 : 0;
  for (std::int32_t by = b.top; by < b.bottom; ++by) {
    const std::int32_t below = 2 * by + 2 < lastRow ? 2 * by + 2 : lastRow;
    for (; nextRow <= below; ++nextRow) {
      const bool own = nextRow >= 2 * b.top && nextRow < 2 * b.bottom;
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(nextRow) * b.width + first;
      ConvertRow<kOneColour>(
          b, nextRow, first, count, strip.rows[static_cast<std::size_t>(nextRow % 4)],
          own ? b.luma + at : strip.spareLuma.data(), own ? b.alpha + at : strip.spareAlpha.data());
    }
    const std::int32_t above = 2 * by - 1 > 0 ? 2 * by - 1 : 0;
    const RowSums& r0 = strip.rows[static_cast<std::size_t>(above % 4)];
    const RowSums& r1 = strip.rows[static_cast<std::size_t>(2 * by % 4)];
    const RowSums& r2 = strip.rows[static_cast<std::size_t>((2 * by + 1) % 4)];
    const RowSums& r3 = strip.rows[static_cast<std::size_t>(below % 4)];
    const auto sum = [blocks](const std::int32_t* __restrict v0, const std::int32_t* __restrict v1,
                              const std::int32_t* __restrict v2, const std::int32_t* __restrict v3,
                              std::int32_t* __restrict to) __attribute__((always_inline)) {
      for (std::int32_t j = 0; j < blocks; ++j) {
        const std::int32_t c = 2 * j;
        const std::int32_t inner = v1[c + 1] + v1[c + 2] + v2[c + 1] + v2[c + 2];
        to[j] = 3 * inner + v1[c] + v1[c + 3] + v2[c] + v2[c + 3] + v0[c + 1] + v0[c + 2] +
                v3[c + 1] + v3[c + 2];
      }
    };
    sum(r0.a.data(), r1.a.data(), r2.a.data(), r3.a.data(), weights.data());
    if constexpr (!kOneColour) {
      sum(r0.p.data(), r1.p.data(), r2.p.data(), r3.p.data(), firsts.data());
      sum(r0.q.data(), r1.q.data(), r2.q.data(), r3.q.data(), seconds.data());
    }
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(by) * (b.width / 2) + first / 2;
    std::uint8_t* __restrict const firstChroma = b.firstChroma + at;
    std::uint8_t* __restrict const secondChroma = b.secondChroma + at;
    std::uint8_t* __restrict const chromaAlpha = b.chromaAlpha + at;
    if constexpr (kOneColour) {
      const Ycbcr88 one = RgbToYcbcr601(colour & 0xFF, (colour >> 8) & 0xFF, (colour >> 16) & 0xFF);
      const std::uint8_t p = MeanChroma(one.p, 1);
      const std::uint8_t q = MeanChroma(one.q, 1);
      for (std::int32_t j = 0; j < blocks; ++j) {
        const bool empty = weights[static_cast<std::size_t>(j)] == 0;
        firstChroma[j] = empty ? 128 : p;
        secondChroma[j] = empty ? 128 : q;
      }
    } else {
      for (std::int32_t j = 0; j < blocks; ++j) {
        firstChroma[j] =
            MeanChroma(firsts[static_cast<std::size_t>(j)], weights[static_cast<std::size_t>(j)]);
      }
      for (std::int32_t j = 0; j < blocks; ++j) {
        secondChroma[j] =
            MeanChroma(seconds[static_cast<std::size_t>(j)], weights[static_cast<std::size_t>(j)]);
      }
    }
    for (std::int32_t j = 0; j < blocks; ++j) {
      chromaAlpha[j] = static_cast<std::uint8_t>((weights[static_cast<std::size_t>(j)] + 10) / 20);
    }
  }
}

// Whether all pixels around the blocks that are not transparent have one colour; it is put into
// `colour`, as a pixel.
TAVREL_INLINE bool HasOneColour(const OverlayBlocks& b, std::uint32_t& colour) {
  const std::int32_t left = 2 * b.left - 1 > 0 ? 2 * b.left - 1 : 0;
  const std::int32_t right = 2 * b.right + 1 < b.width ? 2 * b.right + 1 : b.width;
  const std::int32_t top = 2 * b.top - 1 > 0 ? 2 * b.top - 1 : 0;
  const std::int32_t bottom = 2 * b.bottom + 1 < b.height ? 2 * b.bottom + 1 : b.height;
  const auto at = [&b](std::int32_t x, std::int32_t y) __attribute__((always_inline)) {
    std::uint32_t pixel;
    std::memcpy(&pixel, b.pixels + y * b.stride + std::ptrdiff_t{x} * 4, 4);
    return pixel;
  };
  bool found = false;
  for (std::int32_t y = top; y < bottom; ++y) {
    for (std::int32_t x = left; x < right && !found; ++x) {
      found = at(x, y) >> 24 != 0;
      colour = at(x, y);
    }
    std::uint32_t difference = 0;
    for (std::int32_t x = left; x < right; ++x) {
      const std::uint32_t pixel = at(x, y);
      difference |= pixel >> 24 != 0 ? (pixel ^ colour) & 0xFFFFFF : 0;
    }
    if (difference != 0) {
      return false;
    }
  }
  return true;
}

TAVREL_INLINE void ConvertInStrips(const OverlayBlocks& b) {
  std::uint32_t colour = 0;
  const bool oneColour = HasOneColour(b, colour);
  for (std::int32_t first = 2 * b.left; first < 2 * b.right; first += kStrip) {
    const std::int32_t rest = 2 * b.right - first;
    const std::int32_t count = rest < kStrip ? rest : kStrip;
    if (oneColour) {
      ConvertStrip<true>(b, first, count, colour);
    } else {
      ConvertStrip<false>(b, first, count, colour);
    }
  }
}

void ConvertBase(const OverlayBlocks& blocks) {
  ConvertInStrips(blocks);
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) void ConvertAvx2(const OverlayBlocks& blocks) {
  ConvertInStrips(blocks);
}
#endif

}  // namespace

std::span<const OverlayKernel> AllOverlayKernels() {
  static constexpr std::array kAll {
    OverlayKernel{"scalar", ConvertScalar}, OverlayKernel{"base", ConvertBase},
#if defined(__x86_64__)
        OverlayKernel{"avx2", ConvertAvx2},
#endif
  };
#if defined(__x86_64__)
  static const bool kHasAvx2 = __builtin_cpu_supports("avx2") != 0;
  return std::span(kAll).first(kHasAvx2 ? kAll.size() : kAll.size() - 1);
#else
  return kAll;
#endif
}

}  // namespace kernels
