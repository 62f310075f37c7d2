// The loops that put one bar of a meter into the planes of a picture. They store more than they
// compute, so that one version serves every processor.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kernels {

// What shows of a bar in one plane: its sides, which are half blended, and what lies between them.
struct BarColumns {
  std::int32_t left;  // -1 when it does not show
  std::int32_t right;
  std::int32_t first;  // opaque ones
  std::int32_t opaque;
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
