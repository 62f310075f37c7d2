// Every fast conversion of a bitmap gives the bytes of the scalar one, and touches nothing beside
// its blocks; a text that is converted from its coverage blends like its pixels.
#include "render/kernels/overlay_kernels.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "render/overlay.h"

namespace {

// The planes of an overlay behind one another, with bytes between and around them.
class GuardedPlanes {
 public:
  GuardedPlanes(std::int32_t w, std::int32_t h)
      : width_(w),
        height_(h),
        bytes(static_cast<std::size_t>(5 * (w * h + kGuard) + kGuard), 0xA5) {}

  kernels::OverlayPlanes Planes() {
    const std::ptrdiff_t plane = width_ * height_ + kGuard;
    std::uint8_t* const first = bytes.data() + kGuard;
    return {width_,           height_, first, first + plane, first + 2 * plane, first + 3 * plane,
            first + 4 * plane};
  }

 private:
  static constexpr std::ptrdiff_t kGuard = 67;
  std::int32_t width_;
  std::int32_t height_;

 public:
  std::vector<std::uint8_t> bytes;
};

// Pixels of any colour, many of them corners of the colour cube, with opacities that make sums
// small and large.
std::vector<std::uint8_t> Scattered(std::int32_t w, std::int32_t h, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(w) * h * 4);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const std::uint32_t draw = random();
    const std::uint32_t kind = draw % 8;
    constexpr std::uint8_t kEnds[] = {0, 0, 255, 255, 1, 254, 2, 0};
    pixels[i] = kind < 4 ? kEnds[(draw >> 3) % (i % 4 == 3 ? 8 : 4)] : (draw >> 8) & 0xFF;
  }
  return pixels;
}

class OverlayKernelVersions : public testing::TestWithParam<kernels::OverlayKernel> {};

// All blocks, or some of them.
PlaneBounds SomeBlocks(std::int32_t w, std::int32_t h, std::mt19937& random) {
  PlaneBounds blocks{0, 0, w / 2, h / 2};
  const auto below = [&random](std::int32_t limit) {
    return static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(limit));
  };
  if (random() % 2 == 0) {
    blocks.left = below(w / 2);
    blocks.right -= below(w / 2 - blocks.left);
    blocks.top = below(h / 2);
    blocks.bottom -= below(h / 2 - blocks.top);
  }
  return blocks;
}

// Coverages as a text has, many of them 0, with the opacities of an opaque, a translucent or a
// vanishing colour.
struct Coverage {
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint8_t> pixels;  // the same as 32-bit pixels
  CoverageBitmap bitmap;

  Coverage(std::int32_t w, std::int32_t h, const PlaneBounds& ink, std::mt19937& random)
      : bytes(static_cast<std::size_t>(w + 5) * h) {
    bitmap.stride = w + 5;
    bitmap.ink = ink;
    for (std::size_t i = 0; i < 3; ++i) {
      bitmap.colour[i] = static_cast<std::uint8_t>(random());
      bitmap.clear[i] = static_cast<std::uint8_t>(random());
    }
    const std::array<std::size_t, 4> alphas{255, 255, 128, 1};
    const std::size_t alpha = alphas[random() % alphas.size()];
    for (std::size_t i = 0; i < bitmap.opacities.size(); ++i) {
      bitmap.opacities[i] = static_cast<std::uint8_t>((i * alpha + 127) / 255);
    }
    for (std::int32_t y = 0; y < h; ++y) {
      for (std::int32_t x = 0; x < w; ++x) {
        const bool inside = x >= ink.left && x < ink.right && y >= ink.top && y < ink.bottom;
        const std::uint32_t kind = random() % 4;
        const auto coverage = static_cast<std::uint8_t>(!inside || kind < 2 ? 0
                                                        : kind == 2         ? 255
                                                                            : random());
        bytes[static_cast<std::size_t>(y * (w + 5) + x)] = coverage;
        const std::uint8_t opacity = bitmap.opacities[coverage];
        const auto& colour = opacity == 0 ? bitmap.clear : bitmap.colour;
        pixels.insert(pixels.end(), {colour[0], colour[1], colour[2], opacity});
      }
    }
    bitmap.coverage = bytes.data();
  }
};

TEST_P(OverlayKernelVersions, ConvertingEqualsTheDefinition) {
  const kernels::OverlayKernel scalar = kernels::AllOverlayKernels().front();
  std::mt19937 random(7);
  for (std::int32_t w = 2; w <= 600; w += w < 70 ? 1 : 61) {
    for (const std::int32_t h : {2, 3, 4, 7, 12}) {
      const PlaneBounds blocks = SomeBlocks(w, h, random);
      const auto check = [&](const std::vector<std::uint8_t>& pixels, auto convert) {
        GuardedPlanes expected(w, h);
        GuardedPlanes actual(w, h);
        scalar.convertPixels({pixels.data(), w * 4}, expected.Planes(), blocks);
        convert(actual.Planes());
        ASSERT_EQ(actual.bytes, expected.bytes)
            << w << "x" << h << " from block " << blocks.left << ", " << blocks.top << " to "
            << blocks.right << ", " << blocks.bottom;
      };
      const std::vector<std::uint8_t> pixels =
          Scattered(w, h, static_cast<std::uint32_t>(w * 100 + h));
      check(pixels, [&](const kernels::OverlayPlanes& to) {
        GetParam().convertPixels({pixels.data(), w * 4}, to, blocks);
      });
      const Coverage coverage(w, h, {0, 0, w, h}, random);
      check(coverage.pixels, [&](const kernels::OverlayPlanes& to) {
        GetParam().convertCoverage(coverage.bitmap, to, blocks);
      });
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, OverlayKernelVersions,
                         testing::ValuesIn(kernels::AllOverlayKernels().begin(),
                                           kernels::AllOverlayKernels().end()),
                         [](const auto& version) { return std::string(version.param.name); });

TEST(ConvertCoverageToOverlay, BlendsLikeThePixelsWhateverTheOverlayHeldBefore) {
  constexpr std::int32_t kWidth = 20;
  constexpr std::int32_t kHeight = 12;
  std::mt19937 random(11);
  const auto below = [&random](std::int32_t limit) {
    return static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(limit));
  };
  Yv12Overlay kept;
  kept.Resize(kWidth, kHeight);
  for (int round = 0; round < 500; ++round) {
    PlaneBounds ink;
    ink.left = below(kWidth);
    ink.top = below(kHeight);
    ink.right = ink.left + below(kWidth - ink.left + 1);
    ink.bottom = ink.top + below(kHeight - ink.top + 1);
    if (round == 0) {
      ink = {0, 0, kWidth, kHeight};
    }
    const Coverage coverage(kWidth, kHeight, ink, random);
    Yv12Overlay whole;
    whole.Resize(kWidth, kHeight);
    ConvertArgbToOverlay(coverage.pixels.data(), kWidth * 4, whole);
    if (round % 16 == 15) {
      ConvertArgbToOverlay(coverage.pixels.data(), kWidth * 4, kept);
    } else {
      ConvertCoverageToOverlay(coverage.bitmap, kept);
    }

    std::vector<std::uint8_t> a(40 * 30 * 3 / 2, 77);
    std::vector<std::uint8_t> b = a;
    const std::int32_t left = below(50) - 15;
    const std::int32_t top = below(40) - 10;
    BlendOverlay(whole, left, top, {a.data(), 40, 30});
    BlendOverlay(kept, left, top, {b.data(), 40, 30});
    ASSERT_EQ(a, b) << round;
  }
}

}  // namespace
