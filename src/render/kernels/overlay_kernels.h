// The conversion of an ARGB bitmap into the planes of an overlay, in several versions that give the
// same bytes: the scalar one says what they are, the others are faster.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kernels {

// A bitmap and the planes of an overlay of the same size, and which of their blocks of 2x2 pixels
// are to be converted. A block's chroma is made of the 4x4 pixels around it; at the edges of the
// bitmap the outermost pixels repeat.
struct OverlayBlocks {
  const std::uint8_t* pixels;  // straight alpha; bytes blue, green, red, alpha
  std::ptrdiff_t stride;       // bytes from row to row; negative for a bottom-up bitmap
  std::int32_t width;          // pixels, at least 2
  std::int32_t height;
  std::uint8_t* alpha;  // width bytes a row
  std::uint8_t* luma;
  std::uint8_t* firstChroma;  // width/2 bytes a row
  std::uint8_t* secondChroma;
  std::uint8_t* chromaAlpha;
  // Columns [left, right) and rows [top, bottom) of blocks.
  std::int32_t left;
  std::int32_t top;
  std::int32_t right;
  std::int32_t bottom;
};

struct OverlayKernel {
  const char* name;
  void (*convert)(const OverlayBlocks& blocks);
};

// The versions that this processor can run, the definition first, the fastest last.
std::span<const OverlayKernel> AllOverlayKernels();

}  // namespace kernels
