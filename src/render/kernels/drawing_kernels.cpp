#include "render/kernels/drawing_kernels.h"

#include <algorithm>
#include <atomic>
#include <vector>

namespace kernels {

namespace {

template <typename Operation>
void ForEachSample(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                   const Operation& operation) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t column = 0; column < columns; ++column) {
      std::uint8_t& sample = to[row * stride + column];
      sample = operation(sample, row, column);
    }
  }
}

void Blend(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
           const std::uint8_t* over, const std::uint8_t* alpha, std::ptrdiff_t overStride) {
  ForEachSample(to, stride, columns, rows,
                [=](std::uint8_t sample, std::int32_t row, std::int32_t column) {
                  const std::ptrdiff_t at = row * overStride + column;
                  return Blend255(sample, over[at], alpha[at]);
                });
}

void BlendConstant(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                   std::uint8_t over, std::uint8_t alpha) {
  ForEachSample(to, stride, columns, rows, [=](std::uint8_t sample, std::int32_t, std::int32_t) {
    return Blend255(sample, over, alpha);
  });
}

void BlendValue(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                std::uint8_t over, const std::uint8_t* alphas, std::ptrdiff_t alphaStride) {
  ForEachSample(to, stride, columns, rows,
                [=](std::uint8_t sample, std::int32_t row, std::int32_t column) {
                  return Blend255(sample, over, alphas[row * alphaStride + column]);
                });
}

void FadeRows(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
              const std::int16_t* factors) {
  for (std::int32_t row = 0; row < rows; ++row) {
    for (std::int32_t layer = 0; layer < kFadeLayers; ++layer) {
      ForEachSample(to + row * stride, stride, columns, 1,
                    [&](std::uint8_t sample, std::int32_t, std::int32_t) {
                      return Fade(sample, *factors++);
                    });
    }
  }
}

void ConvertPixels(const ArgbRows& bitmap, const OverlayPlanes& to, const PlaneBounds& blocks) {
  // The weight of each pixel around a block in the block's chroma.
  static constexpr std::array<std::array<std::int32_t, 4>, 4> kWeights{
      {{0, 1, 1, 0}, {1, 3, 3, 1}, {1, 3, 3, 1}, {0, 1, 1, 0}}};
  for (std::int32_t by = blocks.top; by < blocks.bottom; ++by) {
    for (std::int32_t bx = blocks.left; bx < blocks.right; ++bx) {
      std::int64_t weight = 0;
      std::int64_t p = 0;
      std::int64_t q = 0;
      for (std::int32_t i = 0; i < 4; ++i) {
        const std::int32_t row = std::clamp(2 * by - 1 + i, 0, to.height - 1);
        for (std::int32_t k = 0; k < 4; ++k) {
          const std::int32_t column = std::clamp(2 * bx - 1 + k, 0, to.width - 1);
          const std::uint8_t* pixel =
              bitmap.pixels + row * bitmap.stride + std::ptrdiff_t{column} * 4;
          const Ycbcr88 colour = RgbToYcbcr601(pixel[0], pixel[1], pixel[2]);
          if ((i == 1 || i == 2) && (k == 1 || k == 2)) {
            const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(row) * to.width + column;
            to.luma[at] = static_cast<std::uint8_t>(std::clamp((colour.y + 128) >> 8, 16, 235));
            to.alpha[at] = pixel[3];
          }
          const std::int64_t weighted = std::int64_t{kWeights[i][k]} * pixel[3];
          weight += weighted;
          p += weighted * colour.p;
          q += weighted * colour.q;
        }
      }
      const auto chroma = [&](std::int64_t sum) -> std::uint8_t {
        return weight == 0 ? 128
                           : static_cast<std::uint8_t>(
                                 std::clamp<std::int64_t>((sum / weight + 128) >> 8, 16, 240));
      };
      const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(by) * (to.width / 2) + bx;
      to.firstChroma[at] = chroma(p);
      to.secondChroma[at] = chroma(q);
      // The chroma's opacity has the same weights.
      to.chromaAlpha[at] = static_cast<std::uint8_t>((weight + 10) / 20);
    }
  }
}

void ConvertCoverage(const CoverageBitmap& bitmap, const OverlayPlanes& to,
                     const PlaneBounds& blocks) {
  std::vector<std::uint8_t> pixels;
  pixels.reserve(static_cast<std::size_t>(to.width) * to.height * 4);
  for (std::int32_t y = 0; y < to.height; ++y) {
    for (std::int32_t x = 0; x < to.width; ++x) {
      const std::uint8_t opacity = bitmap.opacities[bitmap.coverage[y * bitmap.stride + x]];
      pixels.insert(pixels.end(), {0, 0, 0, opacity});
    }
  }
  std::vector<std::uint8_t> colours(static_cast<std::size_t>(to.width) * to.height);
  OverlayPlanes opacities = to;
  opacities.luma = opacities.firstChroma = opacities.secondChroma = colours.data();
  ConvertPixels({pixels.data(), std::ptrdiff_t{to.width} * 4}, opacities, blocks);
}

struct Versions {
  Versions() {
    if (const DrawingKernels* avx2 = Avx2Kernels()) {
      list[count++] = avx2;
    }
  }

  std::array<const DrawingKernels*, 3> list{&ScalarKernels(), &BaseKernels()};
  std::size_t count = 2;
};

// Null: the fastest.
std::atomic<const DrawingKernels*> chosen{nullptr};

}  // namespace

const DrawingKernels& ScalarKernels() {
  static constexpr DrawingKernels kKernels{"scalar", Blend,         BlendConstant,  BlendValue,
                                           FadeRows, ConvertPixels, ConvertCoverage};
  return kKernels;
}

std::span<const DrawingKernels* const> AllKernels() {
  static const Versions kVersions;
  return {kVersions.list.data(), kVersions.count};
}

const DrawingKernels& CurrentKernels() {
  const DrawingKernels* current = chosen.load(std::memory_order_relaxed);
  return current != nullptr ? *current : *AllKernels().back();
}

void UseKernels(const DrawingKernels& kernels) {
  chosen.store(&kernels, std::memory_order_relaxed);
}

}  // namespace kernels
