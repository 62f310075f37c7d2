// Every fast version of the drawing's loops gives the bytes of the scalar one, and touches nothing
// beside its rectangle.
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "render/kernels/drawing_kernels.h"
#include "render/yv12.h"

namespace {

using kernels::DrawingKernels;

constexpr std::int32_t kWidest = 67;
constexpr std::int32_t kRows = 3;
constexpr std::ptrdiff_t kStride = 128;
constexpr std::size_t kBytes = kStride * (kRows + 2);

std::vector<std::uint8_t> Scattered(std::size_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> bytes(count);
  for (std::uint8_t& byte : bytes) {
    // Both ends of the range more often than chance has it.
    const std::uint32_t draw = random();
    byte = draw % 8 == 0 ? 0 : draw % 8 == 1 ? 255 : static_cast<std::uint8_t>(draw >> 8);
  }
  return bytes;
}

class KernelVersions : public testing::TestWithParam<const DrawingKernels*> {
 protected:
  // Runs the loop of both versions over every width and alignment; what lies around the rectangle
  // is compared as well.
  template <typename Run>
  void ExpectEqualOverWidthsAndAlignments(Run run) {
    const std::vector<std::uint8_t> before = Scattered(kBytes, 1);
    for (std::int32_t columns = 0; columns <= kWidest; ++columns) {
      for (std::ptrdiff_t alignment = 0; alignment < 32; ++alignment) {
        std::vector<std::uint8_t> expected = before;
        std::vector<std::uint8_t> actual = before;
        run(kernels::ScalarKernels(), expected.data() + kStride + alignment, columns, alignment);
        run(*GetParam(), actual.data() + kStride + alignment, columns, alignment);
        ASSERT_EQ(actual, expected) << columns << " columns, alignment " << alignment;
      }
    }
  }
};

TEST_P(KernelVersions, BlendEqualsTheDefinition) {
  const std::vector<std::uint8_t> over = Scattered(kBytes, 2);
  const std::vector<std::uint8_t> alpha = Scattered(kBytes, 3);
  ExpectEqualOverWidthsAndAlignments([&](const DrawingKernels& version, std::uint8_t* to,
                                         std::int32_t columns, std::ptrdiff_t alignment) {
    // Sources aligned differently from the destination, and packed rows.
    version.blend(to, kStride, columns, kRows, over.data() + 31 - alignment,
                  alpha.data() + alignment / 2, columns);
  });
}

TEST_P(KernelVersions, BlendEqualsTheDefinitionForEverySample) {
  std::vector<std::uint8_t> all(256);
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i] = static_cast<std::uint8_t>(i);
  }
  for (int s = 0; s < 256; ++s) {
    for (int a = 0; a < 256; ++a) {
      std::vector<std::uint8_t> expected = all;
      std::vector<std::uint8_t> actual = all;
      const auto over = static_cast<std::uint8_t>(s);
      const auto alpha = static_cast<std::uint8_t>(a);
      kernels::ScalarKernels().blendConstant(expected.data(), 256, 256, 1, over, alpha);
      GetParam()->blendConstant(actual.data(), 256, 256, 1, over, alpha);
      ASSERT_EQ(actual, expected) << "s " << s << " a " << a;
    }
  }
}

TEST_P(KernelVersions, BlendConstantEqualsTheDefinition) {
  ExpectEqualOverWidthsAndAlignments([](const DrawingKernels& version, std::uint8_t* to,
                                        std::int32_t columns, std::ptrdiff_t alignment) {
    version.blendConstant(to, kStride, columns, kRows, 235,
                          static_cast<std::uint8_t>(alignment * 8));
  });
}

TEST_P(KernelVersions, BlendValueEqualsTheDefinition) {
  const std::vector<std::uint8_t> alphas = Scattered(kWidest * kRows, 4);
  ExpectEqualOverWidthsAndAlignments(
      [&](const DrawingKernels& version, std::uint8_t* to, std::int32_t columns, std::ptrdiff_t) {
        version.blendValue(to, kStride, columns, kRows, 16, alphas.data());
      });
}

TEST_P(KernelVersions, FadeEqualsTheDefinition) {
  std::vector<std::int16_t> factors;
  for (const std::uint8_t alpha : Scattered(kWidest * kRows * kernels::kFadeLayers, 5)) {
    factors.push_back(kernels::FadeFactor(alpha));
  }
  ExpectEqualOverWidthsAndAlignments(
      [&](const DrawingKernels& version, std::uint8_t* to, std::int32_t columns, std::ptrdiff_t) {
        version.fade(to, kStride, columns, kRows, factors.data());
      });
}

TEST(Fade, IsTheBlendTowardsNeutralForEverySampleAndOpacity) {
  for (int alpha = 0; alpha < 256; ++alpha) {
    const std::int16_t factor = kernels::FadeFactor(static_cast<std::uint8_t>(alpha));
    for (int sample = 0; sample < 256; ++sample) {
      ASSERT_EQ(kernels::Fade(sample, factor), Blend255(sample, 128, alpha))
          << "sample " << sample << " alpha " << alpha;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Fast, KernelVersions,
                         testing::ValuesIn(kernels::AllKernels().subspan(1).begin(),
                                           kernels::AllKernels().end()),
                         [](const auto& version) { return std::string(version.param->name); });

}  // namespace
