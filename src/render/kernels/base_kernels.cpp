#include "render/kernels/drawing_kernels.h"
#include "render/kernels/vector_kernels.h"

namespace kernels {

namespace {

constexpr int kVector = 16;

void Blend(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
           const std::uint8_t* over, const std::uint8_t* alpha, std::ptrdiff_t overStride) {
  vectors::Blend<kVector>(to, stride, columns, rows, over, alpha, overStride);
}

void BlendConstant(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                   std::uint8_t over, std::uint8_t alpha) {
  vectors::BlendConstant<kVector>(to, stride, columns, rows, over, alpha);
}

void BlendValue(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                std::uint8_t over, const std::uint8_t* alphas) {
  vectors::BlendValue<kVector>(to, stride, columns, rows, over, alphas);
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

}  // namespace

const DrawingKernels& BaseKernels() {
  static constexpr DrawingKernels kKernels{"base",     Blend,    BlendConstant,
                                           BlendValue, FadeRows, nullptr};
  return kKernels;
}

}  // namespace kernels
