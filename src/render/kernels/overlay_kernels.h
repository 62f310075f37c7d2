// The conversion of a bitmap into the planes of an overlay, in several versions that give the same
// bytes: the scalar one says what they are, the others are faster.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "render/overlay.h"

namespace kernels {

// A 32-bit bitmap of the overlay's size.
struct ArgbRows {
  const std::uint8_t* pixels;  // straight alpha; bytes blue, green, red, alpha
  std::ptrdiff_t stride;       // bytes from row to row; negative for a bottom-up bitmap
};

struct OverlayPlanes {
  std::int32_t width;  // pixels, at least 2
  std::int32_t height;
  std::uint8_t* alpha;  // width bytes a row
  std::uint8_t* luma;
  std::uint8_t* firstChroma;  // width/2 bytes a row
  std::uint8_t* secondChroma;
  std::uint8_t* chromaAlpha;
};

// Each function converts columns [left, right) and rows [top, bottom) of blocks of 2x2 pixels. A
// block's chroma is made of the 4x4 pixels around it; at the edges of the bitmap the outermost
// pixels repeat.
struct OverlayKernel {
  const char* name;
  void (*convertPixels)(const ArgbRows& bitmap, const OverlayPlanes& to, const PlaneBounds& blocks);
  void (*convertCoverage)(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                          const PlaneBounds& blocks);
};

// The versions that this processor can run, the definition first, the fastest last.
std::span<const OverlayKernel> AllOverlayKernels();

}  // namespace kernels
