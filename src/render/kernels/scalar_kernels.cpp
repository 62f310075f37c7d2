#include "render/kernels/drawing_kernels.h"
#include "render/yv12.h"

namespace kernels {

namespace {

void Blend(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
           const std::uint8_t* over, const std::uint8_t* alpha, std::ptrdiff_t overStride) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t i = 0; i < columns; ++i) {
      std::uint8_t& sample = to[row * stride + i];
      sample = Blend255(sample, over[row * overStride + i], alpha[row * overStride + i]);
    }
  }
}

void BlendConstant(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                   std::uint8_t over, std::uint8_t alpha) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t i = 0; i < columns; ++i) {
      std::uint8_t& sample = to[row * stride + i];
      sample = Blend255(sample, over, alpha);
    }
  }
}

void BlendValue(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                std::uint8_t over, const std::uint8_t* alphas) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t i = 0; i < columns; ++i) {
      std::uint8_t& sample = to[row * stride + i];
      sample = Blend255(sample, over, *alphas++);
    }
  }
}

void FadeRows(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
              const std::int16_t* factors) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t layer = 0; layer < kFadeLayers; ++layer) {
      for (std::int32_t i = 0; i < columns; ++i) {
        std::uint8_t& sample = to[row * stride + i];
        sample = Fade(sample, *factors++);
      }
    }
  }
}

}  // namespace

const DrawingKernels& ScalarKernels() {
  static constexpr DrawingKernels kKernels{"scalar",   Blend,    BlendConstant,
                                           BlendValue, FadeRows, nullptr};
  return kKernels;
}

}  // namespace kernels
