// Stores of a repeating pattern, inlined into the loops over rows.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "render/meter_colours.h"

namespace kernels {

// The compiler keeps one in a register.
using Block __attribute__((vector_size(16))) = std::uint8_t;
inline constexpr std::int32_t kBlock = sizeof(Block);

// A pattern of eight samples, from each of its phases on for a block.
using Pattern = std::array<std::uint8_t, 8 + kBlock>;

inline constexpr Pattern kDither = [] {
  Pattern pattern{};
  for (std::uint32_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = DitherOf(i);
  }
  return pattern;
}();
inline constexpr Pattern kPlain{};

template <int kBytes>
[[gnu::always_inline]] inline void StorePattern(std::uint8_t* to, std::int32_t at,
                                                std::uint8_t value, const Pattern& pattern,
                                                std::uint32_t phase) {
  Block samples;
  std::memcpy(&samples, pattern.data() + ((phase + static_cast<std::uint32_t>(at)) & 7), kBlock);
  samples |= Block{} + value;
  std::memcpy(to + at, &samples, kBytes);
}

// Sets `count` samples to value | pattern, the pattern beginning at phase. Short rows are two
// stores that overlap: they agree on what they share.
[[gnu::always_inline]] inline void FillPattern(std::uint8_t* to, std::int32_t count,
                                               std::uint8_t value, const Pattern& pattern,
                                               std::uint32_t phase) {
  if (count >= kBlock) {
    for (std::int32_t i = 0; i < count - kBlock; i += kBlock) {
      StorePattern<kBlock>(to, i, value, pattern, phase);
    }
    StorePattern<kBlock>(to, count - kBlock, value, pattern, phase);
  } else if (count >= 8) {
    StorePattern<8>(to, 0, value, pattern, phase);
    StorePattern<8>(to, count - 8, value, pattern, phase);
  } else if (count >= 4) {
    StorePattern<4>(to, 0, value, pattern, phase);
    StorePattern<4>(to, count - 4, value, pattern, phase);
  } else {
    for (std::int32_t i = 0; i < count; ++i) {
      StorePattern<1>(to, i, value, pattern, phase);
    }
  }
}

}  // namespace kernels
