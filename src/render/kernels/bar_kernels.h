// The loops that put one bar of a meter into the planes of a picture. They store more than they
// compute, so that one version serves every processor.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kernels {

// The bar's luma: `width` x `rows` samples at `to`, the rows `stride` bytes apart. The first and
// the last column are half blended with the row's luma, those between take its upper five bits and
// a pattern of eight columns in the lower three, which begins at the row's phase plus `phase`.
void DrawBarLuma(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t width, std::int32_t rows,
                 const std::uint8_t* luma, const std::uint8_t* phases, std::uint8_t phase);

// One chroma plane of a bar whose top left pixel is (left, top), both at least 0, given the value
// of each of its luma rows. The rows are drawn from the foot up: of two rows that share samples the
// upper one wins where the bar is opaque.
void DrawBarChroma(std::uint8_t* plane, std::ptrdiff_t stride, std::int32_t left, std::int32_t top,
                   std::int32_t width, std::int32_t rows, const std::uint8_t* values);

}  // namespace kernels
