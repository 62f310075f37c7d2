// The loops over samples that take the drawing's time, in several versions that give the same
// bytes: the scalar one says what they are, the others are faster.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kernels {

// One version of all loops. Each works on a rectangle of one plane, in place: `columns` samples in
// each of `rows` rows (either may be 0), the rows `stride` bytes apart. Tables lie row behind row
// without padding unless a stride is given. No sample outside the rectangle is read or written.
struct DrawingKernels {
  const char* name;

  // Blends the samples of `over`, with the opacities of `alpha`, over the rectangle; the rows of
  // both are overStride bytes apart.
  void (*blend)(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                const std::uint8_t* over, const std::uint8_t* alpha, std::ptrdiff_t overStride);

  // Blends one value with one opacity over the rectangle.
  void (*blendConstant)(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                        std::int32_t rows, std::uint8_t over, std::uint8_t alpha);

  // Blends one value over the rectangle, `layers` times in sequence, each time with the opacities
  // of its own table; the tables lie behind one another.
  void (*blendLayers)(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                      std::int32_t rows, std::uint8_t over, const std::uint8_t* alphas,
                      std::int32_t layers);
};

// The definition.
const DrawingKernels& ScalarKernels();
// The versions that this processor can run, the definition first, the fastest last.
std::span<const DrawingKernels* const> AllKernels();

// What the drawing uses: the fastest version, unless UseKernels has chosen another one (for tests
// and measurements; any thread, in effect from the next call on).
const DrawingKernels& CurrentKernels();
void UseKernels(const DrawingKernels& chosen);

}  // namespace kernels
