// Every fast version of the drawing's loops gives the bytes of the scalar one, and touches nothing
// beside its rectangle.
#include <cstdint>
#include <functional>
#include <numeric>
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

TEST_P(KernelVersions, EqualTheDefinition) {
  const std::vector<std::uint8_t> over = Scattered(kBytes, 2);
  const std::vector<std::uint8_t> alpha = Scattered(kBytes, 3);
  std::vector<std::int16_t> factors;
  for (const std::uint8_t each : Scattered(kWidest * kRows * kernels::kFadeLayers, 5)) {
    factors.push_back(kernels::FadeFactor(each));
  }
  using Run =
      std::function<void(const DrawingKernels&, std::uint8_t*, std::int32_t, std::ptrdiff_t)>;
  const Run loops[] = {[&](const auto& version, auto* to, auto columns, auto alignment) {
                         // Sources aligned differently from the destination, and packed rows.
                         version.blend(to, kStride, columns, kRows, over.data() + 31 - alignment,
                                       alpha.data() + alignment / 2, columns);
                       },
                       [&](const auto& version, auto* to, auto columns, auto alignment) {
                         version.blendConstant(to, kStride, columns, kRows, 235,
                                               static_cast<std::uint8_t>(alignment * 8));
                       },
                       [&](const auto& version, auto* to, auto columns, auto) {
                         version.blendValue(to, kStride, columns, kRows, 16, alpha.data());
                       },
                       [&](const auto& version, auto* to, auto columns, auto) {
                         version.fade(to, kStride, columns, kRows, factors.data());
                       }};
  for (const Run& loop : loops) {
    ExpectEqualOverWidthsAndAlignments(loop);
  }
}

TEST_P(KernelVersions, BlendEverySampleAsTheDefinitionDoes) {
  std::vector<std::uint8_t> all(256);
  std::iota(all.begin(), all.end(), std::uint8_t{0});
  for (int pair = 0; pair < 256 * 256; ++pair) {
    std::vector<std::uint8_t> expected = all;
    std::vector<std::uint8_t> actual = all;
    const auto sample = static_cast<std::uint8_t>(pair);
    const auto opacity = static_cast<std::uint8_t>(pair >> 8);
    kernels::ScalarKernels().blendConstant(expected.data(), 256, 256, 1, sample, opacity);
    GetParam()->blendConstant(actual.data(), 256, 256, 1, sample, opacity);
    ASSERT_EQ(actual, expected) << pair;
  }
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
