// Stores of a repeating pattern, inlined into the loops over rows.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "render/meter_colours.h"

namespace kernels {

// Eight times the same sample.
[[gnu::always_inline]] inline std::uint64_t Splat(std::uint8_t value) {
  return value * std::uint64_t{0x0101010101010101};
}

// Sixteen; the compiler keeps them in one register.
using Block __attribute__((vector_size(16))) = std::uint8_t;
inline constexpr std::int32_t kBlock = sizeof(Block);

template <typename T>
[[gnu::always_inline]] inline void Store(std::uint8_t* to, const T& samples) {
  std::memcpy(to, &samples, sizeof(T));
}
template <typename T>
[[gnu::always_inline]] inline T Load(const std::uint8_t* from) {
  T samples;
  std::memcpy(&samples, from, sizeof(T));
  return samples;
}

// Sets `count` samples to value. Most rows are two stores that overlap.
[[gnu::always_inline]] inline void Fill(std::uint8_t* to, std::int32_t count, std::uint8_t value) {
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

// The dither of a bar, from each of its eight phases on for a block.
inline constexpr auto kDither = [] {
  std::array<std::uint8_t, 8 + kBlock> pattern{};
  for (std::uint32_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = DitherOf(i);
  }
  return pattern;
}();

// Sets `count` samples to value | dither, the dither beginning at phase.
[[gnu::always_inline]] inline void FillDithered(std::uint8_t* to, std::int32_t count,
                                                std::uint8_t value, std::uint32_t phase) {
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

}  // namespace kernels
