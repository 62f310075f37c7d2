#include "render/kernels/drawing_kernels.h"
#include "render/kernels/fill_pattern.h"
#include "render/kernels/strip_kernel.h"
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

// x / 255, rounded, for lanes of x + 128: x + 128 times 257 / 65536.
TAVREL_AVX2 inline __m256i Divide(__m256i x) {
  return _mm256_mulhi_epu16(x, _mm256_set1_epi16(257));
}
TAVREL_AVX2 inline __m128i Divide(__m128i x) {
  return _mm_mulhi_epu16(x, _mm_set1_epi16(257));
}

template <typename T>
TAVREL_AVX2 inline __m256i Load256(const T* from) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
}
template <typename T>
TAVREL_AVX2 inline __m128i Load128(const T* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}
TAVREL_AVX2 inline __m128i Load64(const std::uint8_t* from) {
  return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(from));
}

// Eight columns of two rows: darkened, then blended with the edges of the bars.
TAVREL_AVX2 inline void BlendStripLuma(std::uint8_t* upper, std::uint8_t* lower,
                                       const BarStrip& strip, const StripPair& darkening,
                                       __m128i bars, __m256i panelLuma, __m256i panelAdded) {
  const __m128i samples = _mm_unpacklo_epi64(Load64(upper), Load64(lower));
  __m256i lanes = _mm256_cvtepu8_epi16(samples);
  lanes = Divide(_mm256_add_epi16(
      _mm256_mullo_epi16(_mm256_sub_epi16(lanes, panelLuma), Load256(darkening.lumaKept)),
      panelAdded));
  const __m256i picked =
      _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(bars), Load256(strip.lumaBars));
  const __m256i added = _mm256_add_epi16(_mm256_slli_epi16(picked, 7), Load256(strip.lumaAdded));
  lanes = Divide(_mm256_add_epi16(_mm256_mullo_epi16(lanes, Load256(strip.lumaKept)), added));
  const __m128i blended =
      _mm_packus_epi16(_mm256_castsi256_si128(lanes), _mm256_extracti128_si256(lanes, 1));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(upper), blended);
  _mm_storeh_pd(reinterpret_cast<double*>(lower), _mm_castsi128_pd(blended));
}

// Four samples of V and four of U: faded, then blended with the edges of the lower row's bars and
// of the upper row's.
TAVREL_AVX2 inline void BlendStripChroma(std::uint8_t* v, std::uint8_t* u, const BarStrip& strip,
                                         const StripPair& darkening, __m128i bars) {
  const __m128i neutral = _mm_set1_epi16(128);
  __m128i lanes = _mm_cvtepu8_epi16(
      _mm_insert_epi32(_mm_cvtsi32_si128(Load<std::int32_t>(v)), Load<std::int32_t>(u), 1));
  lanes = _mm_sub_epi16(lanes, neutral);
  for (const std::int16_t* factors : darkening.fade) {
    lanes = _mm_mulhrs_epi16(lanes, Load128(factors));
  }
  lanes = _mm_add_epi16(lanes, neutral);
  const __m128i kept = Load128(strip.chromaKept);
  for (const std::uint8_t* pick : {strip.lowerBars, strip.upperBars}) {
    const __m128i added =
        _mm_add_epi16(_mm_slli_epi16(_mm_shuffle_epi8(bars, Load128(pick)), 7), neutral);
    lanes = Divide(_mm_add_epi16(_mm_mullo_epi16(lanes, kept), added));
  }
  const __m128i blended = _mm_packus_epi16(lanes, lanes);
  Store(v, _mm_cvtsi128_si32(blended));
  Store(u, _mm_extract_epi32(blended, 1));
}

TAVREL_AVX2 void BarStrips(const BarRun& given) {
  const BarRun run = given;  // a copy that no store into the planes can change
  const __m256i panelLuma = _mm256_set1_epi16(run.panelLuma);
  const __m256i panelAdded =
      _mm256_set1_epi16(static_cast<std::int16_t>(run.panelLuma * 255 + 128));
  const BarStrip* const stripsEnd = run.strips.data() + run.strips.size();
  const BarFill* const fillsEnd = run.fills.data() + run.fills.size();
  std::uint8_t* upper = run.luma;
  std::uint8_t* v = run.v;
  std::uint8_t* u = run.u;
  const BarPair* bars = run.bars;
  const StripPair* darkening = run.darkening;
  const std::uint8_t* phases = run.phases;
  for (std::int32_t pair = 0; pair < run.pairs; ++pair) {
    std::uint8_t* lower = upper + run.lumaStride;
    for (const BarStrip* strip = run.strips.data(); strip != stripsEnd; ++strip) {
      const __m128i two = Load128(bars + strip->firstBar);
      BlendStripLuma(upper + strip->column, lower + strip->column, *strip, *darkening, two,
                     panelLuma, panelAdded);
      BlendStripChroma(v + strip->sample, u + strip->sample, *strip, *darkening, two);
      ++darkening;
    }
    const std::uint32_t upperPhase = run.phase + phases[0];
    const std::uint32_t lowerPhase = run.phase + phases[1];
    for (const BarFill* fill = run.fills.data(); fill != fillsEnd; ++fill) {
      const BarPair bar = *bars++;
      const auto column = static_cast<std::uint32_t>(fill->column);
      FillDithered(upper + column, fill->columns, bar.luma[0] & 0xF8, upperPhase + column);
      FillDithered(lower + column, fill->columns, bar.luma[1] & 0xF8, lowerPhase + column);
      // Of two rows that share chroma the upper one is drawn last.
      Fill(v + fill->sample, fill->samples, bar.v[0]);
      Fill(u + fill->sample, fill->samples, bar.u[0]);
    }
    phases += 2;
    upper += 2 * run.lumaStride;
    v += run.chromaStride;
    u += run.chromaStride;
  }
}

constexpr DrawingKernels kKernels{"avx2", Blend, BlendConstant, BlendValue, FadeRows, BarStrips};

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
