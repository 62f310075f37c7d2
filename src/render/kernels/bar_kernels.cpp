#include <algorithm>
#include <array>
#include <cstring>

#include "render/kernels/drawing_kernels.h"
#include "render/kernels/samples.h"

namespace kernels {

namespace {

// Eight times the same sample.
TAVREL_INLINE std::uint64_t Splat(std::uint8_t value) {
  return value * std::uint64_t{0x0101010101010101};
}

// Sixteen samples, which the compiler keeps in one register.
using Block __attribute__((vector_size(16))) = std::uint8_t;
inline constexpr std::int32_t kBlock = sizeof(Block);

template <typename T>
TAVREL_INLINE void Store(std::uint8_t* to, const T& samples) {
  std::memcpy(to, &samples, sizeof(T));
}
template <typename T>
TAVREL_INLINE T Load(const std::uint8_t* from) {
  T samples;
  std::memcpy(&samples, from, sizeof(T));
  return samples;
}

// Sets `count` samples to value. Most rows are two stores that overlap.
TAVREL_INLINE void Fill(std::uint8_t* to, std::int32_t count, std::uint8_t value) {
  if (count > kBlock) {
    const Block samples = Block{} + value;
    for (std::int32_t i = 0; i < count - kBlock; i += kBlock) {
      Store(to + i, samples);
    }
    Store(to + count - kBlock, samples);
  } else if (count >= 8) {
    Store(to, Splat(value));
    Store(to + count - 8, Splat(value));
  } else if (count >= 4) {
    const auto samples = static_cast<std::uint32_t>(Splat(value));
    Store(to, samples);
    Store(to + count - 4, samples);
  } else {
    for (std::int32_t i = 0; i < count; ++i) {
      to[i] = value;
    }
  }
}

// The dither of a bar: a block from each of its eight phases on.
inline constexpr auto kDither = [] {
  std::array<std::uint8_t, 8 + kBlock> pattern{};
  for (std::uint32_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = DitherOf(i);
  }
  return pattern;
}();

// Sets `count` samples to value | dither, the dither beginning at phase.
TAVREL_INLINE void FillDithered(std::uint8_t* to, std::int32_t count, std::uint8_t value,
                                std::uint32_t phase) {
  const std::uint8_t* first = kDither.data() + (phase & 7);
  const auto last = [phase, count](std::int32_t bytes) {
    return kDither.data() + ((phase + static_cast<std::uint32_t>(count - bytes)) & 7);
  };
  if (count > kBlock) {
    const Block values = Block{} + value;
    const Block samples = values | Load<Block>(first);
    for (std::int32_t i = 0; i < count - kBlock; i += kBlock) {
      Store(to + i, samples);
    }
    Store(to + count - kBlock, values | Load<Block>(last(kBlock)));
  } else if (count >= 8) {
    Store(to, Splat(value) | Load<std::uint64_t>(first));
    Store(to + count - 8, Splat(value) | Load<std::uint64_t>(last(8)));
  } else if (count >= 4) {
    const auto values = static_cast<std::uint32_t>(Splat(value));
    Store(to, values | Load<std::uint32_t>(first));
    Store(to + count - 4, values | Load<std::uint32_t>(last(4)));
  } else {
    for (std::int32_t i = 0; i < count; ++i) {
      to[i] = value | first[i];
    }
  }
}

void BlendSide(std::uint8_t* samples, std::int32_t column, std::uint8_t value) {
  constexpr std::uint8_t kOpacity = 128;
  if (column >= 0) {
    samples[column] = Blend255(samples[column], value, kOpacity);
  }
}

}  // namespace

void DrawBarLuma(std::uint8_t* row, std::ptrdiff_t stride, const BarColumns& columns,
                 std::int32_t rows, const std::uint8_t* luma, const std::uint8_t* phases,
                 std::uint32_t phase) {
  for (std::int32_t i = 0; i < rows; ++i) {
    BlendSide(row, columns.left, luma[i]);
    FillDithered(row + columns.first, columns.opaque, luma[i] & 0xF8, phases[i] + phase);
    BlendSide(row, columns.right, luma[i]);
    row += stride;
  }
}

void DrawBarChroma(std::uint8_t* plane, std::ptrdiff_t stride, std::int32_t lines,
                   const BarColumns& columns, std::int32_t top, std::int32_t rows,
                   const std::uint8_t* values) {
  const std::int32_t end = std::min((top + rows + 1) / 2, lines);
  for (std::int32_t line = top / 2; line < end; ++line) {
    std::uint8_t* const samples = plane + line * stride;
    std::uint8_t value = 0;
    for (const std::int32_t row : {2 * line + 1, 2 * line}) {
      if (row >= top && row < top + rows) {
        value = values[row - top];
        BlendSide(samples, columns.left, value);
        BlendSide(samples, columns.right, value);
      }
    }
    Fill(samples + columns.first, columns.opaque, value);
  }
}

}  // namespace kernels
