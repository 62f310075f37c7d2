// The resampler's inner loop: samples times coefficients, added up.
#pragma once

#include <cstdint>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace qorp {

// The reference implementation. The caller's coefficients keep the sum, and each part of it, within
// 32 bits.
inline std::int32_t InnerProductScalar(const std::int16_t* samples,
                                       const std::int16_t* coefficients, std::int32_t taps) {
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < taps; ++i) {
    sum += std::int32_t{samples[i]} * coefficients[i];
  }
  return sum;
}

#ifdef __SSE2__

// Eight products at a time, which measured 1.5 times what the compiler makes of the loop above.
// Taps beyond the last whole eight are taken from the end, with those that are counted already
// masked out: nothing outside the two arrays is read.
inline std::int32_t InnerProduct(const std::int16_t* samples, const std::int16_t* coefficients,
                                 std::int32_t taps) {
  constexpr std::int32_t kLanes = 8;
  static constexpr std::int16_t kMasks[2 * kLanes] = {0,  0,  0,  0,  0,  0,  0,  0,
                                                      -1, -1, -1, -1, -1, -1, -1, -1};
  if (taps < kLanes) {
    return InnerProductScalar(samples, coefficients, taps);
  }
  const auto load = [](const std::int16_t* from) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  };
  __m128i sums = _mm_setzero_si128();
  std::int32_t done = 0;
  for (; done + kLanes <= taps; done += kLanes) {
    sums = _mm_add_epi32(sums, _mm_madd_epi16(load(samples + done), load(coefficients + done)));
  }
  if (const std::int32_t rest = taps - done; rest > 0) {
    const __m128i lastCoefficients =
        _mm_and_si128(load(coefficients + taps - kLanes), load(kMasks + rest));
    sums = _mm_add_epi32(sums, _mm_madd_epi16(load(samples + taps - kLanes), lastCoefficients));
  }
  sums = _mm_add_epi32(sums, _mm_shuffle_epi32(sums, _MM_SHUFFLE(1, 0, 3, 2)));
  sums = _mm_add_epi32(sums, _mm_shuffle_epi32(sums, _MM_SHUFFLE(2, 3, 0, 1)));
  return _mm_cvtsi128_si32(sums);
}

#else

inline std::int32_t InnerProduct(const std::int16_t* samples, const std::int16_t* coefficients,
                                 std::int32_t taps) {
  return InnerProductScalar(samples, coefficients, taps);
}

#endif

}  // namespace qorp
