#include "render/kernels/drawing_kernels.h"
#include "render/kernels/vector_kernels.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kernels {

#if defined(__x86_64__)

namespace {

// Function by function, not for the whole file: an inline function of a shared header must not be
// compiled for AVX2 and then be chosen by the linker for all.
#define TAVREL_AVX2 __attribute__((target("avx2")))

constexpr int kVector = 32;

TAVREL_AVX2 void Blend(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                       std::int32_t rows, const std::uint8_t* over, const std::uint8_t* alpha,
                       std::ptrdiff_t overStride) {
  vectors::Blend<kVector>(to, stride, columns, rows, over, alpha, overStride);
}

TAVREL_AVX2 void BlendConstant(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                               std::int32_t rows, std::uint8_t over, std::uint8_t alpha) {
  vectors::BlendConstant<kVector>(to, stride, columns, rows, over, alpha);
}

TAVREL_AVX2 void BlendValue(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                            std::int32_t rows, std::uint8_t over, const std::uint8_t* alphas) {
  vectors::BlendValue<kVector>(to, stride, columns, rows, over, alphas);
}

// 16 samples of a row through all layers: the rounded product of 16-bit lanes is one instruction.
TAVREL_AVX2 inline __m128i FadeBlock(const std::uint8_t* from, const std::int16_t* factors,
                                     std::ptrdiff_t layer) {
  const __m256i neutral = _mm256_set1_epi16(128);
  __m256i distance = _mm256_sub_epi16(
      _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from))), neutral);
  for (std::int32_t i = 0; i < kFadeLayers; ++i) {
    distance = _mm256_mulhrs_epi16(
        distance, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(factors + i * layer)));
  }
  const __m256i samples = _mm256_add_epi16(distance, neutral);
  return _mm_packus_epi16(_mm256_castsi256_si128(samples), _mm256_extracti128_si256(samples, 1));
}

TAVREL_AVX2 void FadeRows(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                          std::int32_t rows, const std::int16_t* factors) {
  constexpr std::int32_t kBlock = 16;
  if (columns < kBlock) {
    BaseKernels().fade(to, stride, columns, rows, factors);
    return;
  }
  const std::int32_t end = columns - kBlock;
  for (std::int32_t row = 0; row < rows; ++row) {
    // The last block ends with the row and overlaps the one before it: it is computed first, from
    // the old samples.
    const __m128i last = FadeBlock(to + end, factors + end, columns);
    for (std::int32_t i = 0; i < end; i += kBlock) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i), FadeBlock(to + i, factors + i, columns));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to + end), last);
    to += stride;
    factors += std::ptrdiff_t{kFadeLayers} * columns;
  }
}

constexpr DrawingKernels kKernels{"avx2", Blend, BlendConstant, BlendValue, FadeRows};

}  // namespace

const DrawingKernels* Avx2Kernels() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? &kKernels : nullptr;
}

#else

const DrawingKernels* Avx2Kernels() {
  return nullptr;
}

#endif

}  // namespace kernels
