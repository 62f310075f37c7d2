// The arithmetic of one sample, shared by the kernels and by what draws with them, and how kernels
// are compiled.
#pragma once

#include <cstdint>

// s over d with opacity a (0 to 255): (s*a + d*(255-a)) / 255, rounded to nearest, halves up.
constexpr std::uint8_t Blend255(std::uint8_t d, std::uint8_t s, std::uint8_t a) {
  const std::uint32_t t = s * std::uint32_t{a} + d * (255u - a) + 127u;
  return static_cast<std::uint8_t>((t + (t >> 8) + 1) >> 8);
}

// A colour in 8.8 fixed point, BT.601 studio range.
struct Ycbcr88 {
  std::int32_t y;
  std::int32_t p;  // goes to the V plane
  std::int32_t q;  // goes to the U plane
};

// c0, c1, c2: the first three bytes of a bitmap pixel in memory order (blue, green, red), 0 to 255.
// The weight 0.257 falls on c0 and 0.098 on c2. Labels have always been drawn so; white, grey and
// black are the same either way.
constexpr Ycbcr88 RgbToYcbcr601(std::int32_t c0, std::int32_t c1, std::int32_t c2) {
  const std::int64_t b = c0;
  const std::int64_t g = c1;
  const std::int64_t r = c2;
  return {
      static_cast<std::int32_t>((4311745 * b + 8455717 * g + 1644167 * r + 32768) >> 16) + 4096,
      static_cast<std::int32_t>((-2483028 * b - 4882170 * g + 7365198 * r + 32768) >> 16) + 32768,
      static_cast<std::int32_t>((7365198 * b - 6174015 * g - 1191182 * r + 32768) >> 16) + 32768};
}

// Kernels are compiled for several instruction sets. Code that they share is inlined, so that it is
// compiled for each of them.
#define TAVREL_INLINE inline __attribute__((always_inline))
#define TAVREL_AVX2 __attribute__((target("avx2")))

// Prefetches a row that is about to be written.
inline void PrefetchRow(const std::uint8_t* row, std::int64_t bytes) {
  constexpr std::int64_t kCacheLine = 64;
  for (std::int64_t i = 0; i < bytes; i += kCacheLine) {
    __builtin_prefetch(row + i, 1);
  }
}
