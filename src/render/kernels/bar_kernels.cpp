#include "render/kernels/bar_kernels.h"

#include <array>
#include <cstring>

#include "render/meter_colours.h"
#include "render/yv12.h"

namespace kernels {

namespace {

// Two blocks of 16 that the compiler keeps in one register each.
using Block __attribute__((vector_size(16))) = std::uint8_t;
constexpr std::int32_t kBlock = sizeof(Block);
constexpr std::int32_t kHalf = kBlock / 2;

// The dither pattern from each of its eight phases on.
constexpr auto kDither = [] {
  std::array<std::uint8_t, 8 + kBlock> pattern{};
  for (std::uint32_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = DitherOf(i);
  }
  return pattern;
}();

// Stores `count` samples of value | pattern, the pattern repeating after eight and beginning at
// phase. Blocks may overlap: they agree on what they share.
inline void FillPattern(std::uint8_t* to, std::int32_t count, std::uint8_t value,
                        const std::uint8_t* pattern, std::uint32_t phase) {
  const auto block = [&](std::int32_t at) {
    Block samples;
    std::memcpy(&samples, pattern + ((phase + static_cast<std::uint32_t>(at)) & 7), kBlock);
    return samples | (Block{} + value);
  };
  if (count >= kBlock) {
    const Block samples = block(0);
    for (std::int32_t i = 0; i < count - kBlock; i += kBlock) {
      std::memcpy(to + i, &samples, kBlock);
    }
    const Block last = block(count - kBlock);
    std::memcpy(to + count - kBlock, &last, kBlock);
  } else if (count >= kHalf) {
    const Block first = block(0);
    const Block last = block(count - kHalf);
    std::memcpy(to, &first, kHalf);
    std::memcpy(to + count - kHalf, &last, kHalf);
  } else {
    for (std::int32_t i = 0; i < count; ++i) {
      to[i] = value | pattern[(phase + static_cast<std::uint32_t>(i)) & 7];
    }
  }
}

inline void Fill(std::uint8_t* to, std::int32_t count, std::uint8_t value) {
  static constexpr std::array<std::uint8_t, 8 + kBlock> kNothing{};
  FillPattern(to, count, value, kNothing.data(), 0);
}

inline void BlendEdge(std::uint8_t& sample, std::uint8_t value) {
  sample = Blend255(sample, value, kBarEdgeOpacity);
}

}  // namespace

void DrawBarLuma(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t width, std::int32_t rows,
                 const std::uint8_t* luma, const std::uint8_t* phases, std::uint8_t phase) {
  for (std::int32_t row = 0; row < rows; ++row) {
    BlendEdge(to[0], luma[row]);
    if (width >= 2) {
      FillPattern(to + 1, width - 2, luma[row] & 0xF8, kDither.data(), phases[row] + phase);
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
