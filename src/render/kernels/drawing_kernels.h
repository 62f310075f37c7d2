// The loops over samples that dominate the time of drawing, in several versions that give the same
// bytes: the scalar one is the reference implementation, the others are faster. The loops for the
// bars of a meter mostly store: one version serves every processor.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "render/kernels/samples.h"

namespace kernels {

inline constexpr std::int32_t kFadeLayers = 4;

// The factor, in 1/32768, by which an opacity reduces a sample's distance from neutral (at most
// 128) in the fade loop: (255 - alpha) / 255, rounded. It is off by half a unit at most and the
// product by 1/512. An exact product is a multiple of 1/255, at least 1/510 from the nearest half:
// so the rounded product is always that of Blend255.
constexpr std::int16_t FadeFactor(std::uint8_t alpha) {
  const std::int32_t factor = ((255 - alpha) * 65536 + 255) / 510;
  return static_cast<std::int16_t>(factor < 32767 ? factor : 32767);
}

// A chroma sample under one layer of the fade: Blend255(sample, 128, alpha) in one multiplication.
constexpr std::uint8_t Fade(std::uint8_t sample, std::int16_t factor) {
  return static_cast<std::uint8_t>(128 + ((((sample - 128) * factor >> 14) + 1) >> 1));
}

// Columns [left, right) and rows [top, bottom); empty when opposite edges meet.
struct PlaneBounds {
  std::int32_t left = 0;
  std::int32_t top = 0;
  std::int32_t right = 0;
  std::int32_t bottom = 0;
};

// A 32-bit bitmap: straight alpha; bytes blue, green, red, alpha.
struct ArgbRows {
  const std::uint8_t* pixels;
  std::ptrdiff_t stride;  // bytes from row to row; negative for a bottom-up bitmap
};

// A bitmap in one colour: of a pixel only the coverage is known, 0 where there is no text.
// Transparent pixels may have another colour, which has no weight.
struct CoverageBitmap {
  const std::uint8_t* coverage = nullptr;  // the top left pixel
  std::ptrdiff_t stride = 0;               // bytes from row to row
  PlaneBounds ink;                         // outside it, every coverage is 0
  std::array<std::uint8_t, 3> colour{};    // blue, green, red
  // Opacity of each coverage; the first is 0.
  std::array<std::uint8_t, 256> opacities{};
};

// The target of the conversion of a bitmap of the same size.
struct OverlayPlanes {
  std::int32_t width;  // pixels, at least 2
  std::int32_t height;
  std::uint8_t* alpha;  // width bytes a row
  std::uint8_t* luma;
  std::uint8_t* firstChroma;  // width/2 bytes a row
  std::uint8_t* secondChroma;
  std::uint8_t* chromaAlpha;
};

// One version of all loops. The first four work on a rectangle of one plane, in place: `columns`
// samples in each of `rows` rows (either may be 0), the rows `stride` bytes apart. No sample
// outside the rectangle is read or written.
struct DrawingKernels {
  const char* name;

  // Blends the samples of `over`, with the opacities of `alpha`, over the rectangle; the rows of
  // both are overStride bytes apart.
  void (*blend)(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                const std::uint8_t* over, const std::uint8_t* alpha, std::ptrdiff_t overStride);

  // Blends one value with one opacity over the rectangle.
  void (*blendConstant)(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                        std::int32_t rows, std::uint8_t over, std::uint8_t alpha);

  // Blends one value over the rectangle, with the opacity that `alphas` has for each sample, its
  // rows alphaStride bytes apart.
  void (*blendValue)(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                     std::int32_t rows, std::uint8_t over, const std::uint8_t* alphas,
                     std::ptrdiff_t alphaStride);

  // Blends chroma samples kFadeLayers times in sequence towards neutral, each time with an opacity
  // of its own. `factors` has, for each row, `columns` factors of the first layer, then those of
  // the second and so on; FadeFactor makes them.
  void (*fade)(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
               const std::int16_t* factors);

  // Convert columns [left, right) and rows [top, bottom) of blocks of 2x2 pixels of a bitmap. A
  // block's chroma is made of the 4x4 pixels around it; at the edges of the bitmap the outermost
  // pixels repeat. Of a bitmap in one colour only the opacities are written.
  void (*convertPixels)(const ArgbRows& bitmap, const OverlayPlanes& to, const PlaneBounds& blocks);
  void (*convertCoverage)(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                          const PlaneBounds& blocks);
};

// The reference implementation.
const DrawingKernels& ScalarKernels();
// Vectors of 16 bytes, for every processor of the architecture.
const DrawingKernels& BaseKernels();
// For x86 processors with AVX2; null on all others.
const DrawingKernels* Avx2Kernels();
// The versions that this processor can run, the reference implementation first, the fastest last.
std::span<const DrawingKernels* const> AllKernels();

// The version that the drawing uses: the fastest, unless UseKernels has chosen another one (for
// tests and measurements; any thread, in effect from the next call on).
const DrawingKernels& CurrentKernels();
void UseKernels(const DrawingKernels& chosen);

// The visible columns of a bar in one plane: its sides, which are half blended, and the opaque ones
// between them.
struct BarColumns {
  std::int32_t left;  // -1 when it is not visible
  std::int32_t right;
  std::int32_t first;   // of the opaque columns
  std::int32_t opaque;  // their number
};

// A pattern of eight values up to 7, the dither of a bar's luma.
constexpr std::uint8_t DitherOf(std::uint32_t d) {
  return static_cast<std::uint8_t>((d * (15731u * d * d + 5u) + 5u) & 7u);
}

// The bar's luma in `rows` rows `stride` bytes apart, from the plane's column 0 of the first one
// on. Opaque samples take the upper five bits of the row's luma, and the dither in the lower three,
// which begins at the row's phase plus `phase`.
void DrawBarLuma(std::uint8_t* row, std::ptrdiff_t stride, const BarColumns& columns,
                 std::int32_t rows, const std::uint8_t* luma, const std::uint8_t* phases,
                 std::uint32_t phase);

// One chroma plane, of `lines` lines, of a bar with luma rows from `top` on, which is not negative,
// given the value of each. The rows are drawn from the bottom up: of two rows that share samples
// the upper one wins where the bar is opaque.
void DrawBarChroma(std::uint8_t* plane, std::ptrdiff_t stride, std::int32_t lines,
                   const BarColumns& columns, std::int32_t top, std::int32_t rows,
                   const std::uint8_t* values);

}  // namespace kernels
