// Faster versions of the drawing's loops, written once over the compiler's portable vectors: with
// 16 bytes for every processor, with 32 for those that have AVX2.
//
// A vector of N bytes is treated as N/2 lanes of 16 bits. The samples at even positions are blended
// in the low halves of the lanes, those at odd positions after a shift by 8: no byte has to be
// moved between lanes.
//
// Shared code is inlined into each version, so that it is compiled for the version's instruction
// set. That is selected for each function, not for the whole file: otherwise the linker might
// choose an AVX2 copy of a header's inline function for all callers.
#include <cstring>

#include "render/kernels/drawing_kernels.h"
#include "render/kernels/overlay_kernels.h"
#include "render/kernels/samples.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kernels {

namespace {

template <int N>
struct LanesOf {
  using Type __attribute__((vector_size(N))) = std::uint16_t;
};
template <int N>
using Lanes = typename LanesOf<N>::Type;

template <int N>
TAVREL_INLINE Lanes<N> Load(const std::uint8_t* from) {
  Lanes<N> lanes;
  std::memcpy(&lanes, from, N);
  return lanes;
}

// s over d with opacity a, all 0 to 255 in lanes of 16 bits. Rounds like Blend255: with x = s*a +
// d*(255-a) + 128, (x + (x >> 8)) >> 8 is x/255 rounded for every x that occurs, and no lane
// overflows at the end (a difference s - d that wraps is corrected by the sum).
template <typename L>
TAVREL_INLINE L BlendLanes(L d, L s, L a) {
  const L x = (d << 8) - d + a * (s - d) + 128;
  return (x + (x >> 8)) >> 8;
}

// An operation computes the new value of a sample from its old one; it gets the samples of a row
// as even and odd lanes, or one by one, with their column.

struct BlendOver {
  const std::uint8_t* over;
  const std::uint8_t* alpha;
  std::ptrdiff_t stride;

  TAVREL_INLINE void NextRow() {
    over += stride;
    alpha += stride;
  }
  template <int N>
  TAVREL_INLINE void Apply(Lanes<N>& even, Lanes<N>& odd, std::ptrdiff_t column) const {
    const Lanes<N> s = Load<N>(over + column);
    const Lanes<N> a = Load<N>(alpha + column);
    even = BlendLanes(even, s & 0xFF, a & 0xFF);
    odd = BlendLanes(odd, s >> 8, a >> 8);
  }
  TAVREL_INLINE std::uint8_t Apply(std::uint8_t sample, std::ptrdiff_t column) const {
    return Blend255(sample, over[column], alpha[column]);
  }
};

struct BlendOneValue {
  std::uint8_t over;
  std::uint8_t alpha;

  TAVREL_INLINE void NextRow() {}
  template <int N>
  TAVREL_INLINE void Apply(Lanes<N>& even, Lanes<N>& odd, std::ptrdiff_t) const {
    const Lanes<N> s = Lanes<N>{} + over;
    const Lanes<N> a = Lanes<N>{} + alpha;
    even = BlendLanes(even, s, a);
    odd = BlendLanes(odd, s, a);
  }
  TAVREL_INLINE std::uint8_t Apply(std::uint8_t sample, std::ptrdiff_t) const {
    return Blend255(sample, over, alpha);
  }
};

struct BlendValueWith {
  std::uint8_t over;
  const std::uint8_t* alphas;
  std::ptrdiff_t stride;

  TAVREL_INLINE void NextRow() { alphas += stride; }
  template <int N>
  TAVREL_INLINE void Apply(Lanes<N>& even, Lanes<N>& odd, std::ptrdiff_t column) const {
    const Lanes<N> s = Lanes<N>{} + over;
    const Lanes<N> a = Load<N>(alphas + column);
    even = BlendLanes(even, s, a & 0xFF);
    odd = BlendLanes(odd, s, a >> 8);
  }
  TAVREL_INLINE std::uint8_t Apply(std::uint8_t sample, std::ptrdiff_t column) const {
    return Blend255(sample, over, alphas[column]);
  }
};

template <int N, typename Operation>
TAVREL_INLINE Lanes<N> Vector(const std::uint8_t* row, std::ptrdiff_t column,
                              const Operation& operation) {
  const Lanes<N> samples = Load<N>(row + column);
  Lanes<N> even = samples & 0xFF;
  Lanes<N> odd = samples >> 8;
  operation.template Apply<N>(even, odd, column);
  return even | (odd << 8);
}

// Rows of N samples or more. The last vector of a row ends with the row and overlaps the one before
// it: it is computed from the old samples, before they are overwritten.
template <int N, typename Operation>
TAVREL_INLINE void WideRows(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                            std::int32_t rows, Operation operation) {
  const std::ptrdiff_t end = columns - N;
  for (std::int32_t row = 0; row < rows; ++row) {
    const Lanes<N> last = Vector<N>(to, end, operation);
    for (std::ptrdiff_t column = 0; column < end; column += N) {
      const Lanes<N> samples = Vector<N>(to, column, operation);
      std::memcpy(to + column, &samples, N);
    }
    std::memcpy(to + end, &last, N);
    to += stride;
    operation.NextRow();
  }
}

template <typename Operation>
TAVREL_INLINE void NarrowRows(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                              std::int32_t rows, Operation operation) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t column = 0; column < columns; ++column) {
      to[column] = operation.Apply(to[column], column);
    }
    to += stride;
    operation.NextRow();
  }
}

// kVector: the bytes of the instruction set's vectors.
template <int kVector, typename Operation>
TAVREL_INLINE void ForRows(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                           std::int32_t rows, Operation operation) {
  // NOLINTNEXTLINE(bugprone-branch-clone): alike where the vectors have 16 bytes
  if (columns >= kVector) {
    WideRows<kVector>(to, stride, columns, rows, operation);
  } else if (columns >= 16) {
    WideRows<16>(to, stride, columns, rows, operation);
  } else if (columns >= 8) {
    WideRows<8>(to, stride, columns, rows, operation);
  } else {
    NarrowRows(to, stride, columns, rows, operation);
  }
}

void Blend(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
           const std::uint8_t* over, const std::uint8_t* alpha, std::ptrdiff_t overStride) {
  ForRows<16>(to, stride, columns, rows, BlendOver{over, alpha, overStride});
}

void BlendConstant(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                   std::uint8_t over, std::uint8_t alpha) {
  ForRows<16>(to, stride, columns, rows, BlendOneValue{over, alpha});
}

void BlendValue(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                std::uint8_t over, const std::uint8_t* alphas, std::ptrdiff_t alphaStride) {
  ForRows<16>(to, stride, columns, rows, BlendValueWith{over, alphas, alphaStride});
}

// A plain loop that the compiler turns into vectors by itself.
void FadeRows(std::uint8_t* __restrict to, std::ptrdiff_t stride, std::int32_t columns,
              std::int32_t rows, const std::int16_t* __restrict factors) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t layer = 0; layer < kFadeLayers; ++layer) {
      for (std::int32_t i = 0; i < columns; ++i) {
        to[i] = Fade(to[i], factors[i]);
      }
      factors += columns;
    }
    to += stride;
  }
}

#if defined(__x86_64__)

TAVREL_AVX2 void BlendAvx2(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                           std::int32_t rows, const std::uint8_t* over, const std::uint8_t* alpha,
                           std::ptrdiff_t overStride) {
  ForRows<32>(to, stride, columns, rows, BlendOver{over, alpha, overStride});
}

TAVREL_AVX2 void BlendConstantAvx2(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                                   std::int32_t rows, std::uint8_t over, std::uint8_t alpha) {
  ForRows<32>(to, stride, columns, rows, BlendOneValue{over, alpha});
}

TAVREL_AVX2 void BlendValueAvx2(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                                std::int32_t rows, std::uint8_t over, const std::uint8_t* alphas,
                                std::ptrdiff_t alphaStride) {
  ForRows<32>(to, stride, columns, rows, BlendValueWith{over, alphas, alphaStride});
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

TAVREL_AVX2 void FadeRowsAvx2(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                              std::int32_t rows, const std::int16_t* factors) {
  constexpr std::int32_t kBlock = 16;
  if (columns < kBlock) {
    FadeRows(to, stride, columns, rows, factors);
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

#endif

}  // namespace

const DrawingKernels& BaseKernels() {
  static constexpr DrawingKernels kKernels{"base",   Blend,         BlendConstant,  BlendValue,
                                           FadeRows, ConvertPixels, ConvertCoverage};
  return kKernels;
}

const DrawingKernels* Avx2Kernels() {
#if defined(__x86_64__)
  static constexpr DrawingKernels kKernels{
      "avx2",       BlendAvx2,         BlendConstantAvx2,  BlendValueAvx2,
      FadeRowsAvx2, ConvertPixelsAvx2, ConvertCoverageAvx2};
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? &kKernels : nullptr;
#else
  return nullptr;
#endif
}

}  // namespace kernels
