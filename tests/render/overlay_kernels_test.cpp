// Every fast conversion of a bitmap gives the bytes of the scalar one, and touches nothing beside
// its blocks; leaving out what is clear gives the bytes of converting everything.
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

  kernels::OverlayBlocks Blocks(const std::vector<std::uint8_t>& pixels) {
    const std::ptrdiff_t plane = width_ * height_ + kGuard;
    std::uint8_t* const first = bytes.data() + kGuard;
    return {pixels.data(),
            width_ * 4,
            width_,
            height_,
            first,
            first + plane,
            first + 2 * plane,
            first + 3 * plane,
            first + 4 * plane,
            0,
            0,
            width_ / 2,
            height_ / 2};
  }

 private:
  static constexpr std::ptrdiff_t kGuard = 67;
  std::int32_t width_;
  std::int32_t height_;

 public:
  std::vector<std::uint8_t> bytes;
};

// Pixels of any colour, many of them transparent or opaque.
std::vector<std::uint8_t> Scattered(std::int32_t w, std::int32_t h, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(w) * h * 4);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const std::uint32_t draw = random();
    const std::uint32_t kind = draw % 8;
    pixels[i] = kind < 3 && i % 4 == 3 ? 0 : kind == 3 ? 0 : kind == 4 ? 255 : (draw >> 8) & 0xFF;
  }
  return pixels;
}

class OverlayKernelVersions : public testing::TestWithParam<kernels::OverlayKernel> {};

// As a text has: every pixel that is not transparent in one colour, many of them transparent; in a
// few bitmaps one pixel in another colour.
void GiveOneColour(std::vector<std::uint8_t>& pixels, std::mt19937& random) {
  const std::array colour{static_cast<std::uint8_t>(random()), static_cast<std::uint8_t>(random()),
                          static_cast<std::uint8_t>(random())};
  for (std::size_t i = 0; i < pixels.size(); i += 4) {
    if (random() % 3 == 0) {
      pixels[i + 3] = 0;
    } else {
      std::copy(colour.begin(), colour.end(), pixels.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  if (random() % 4 == 0) {
    const std::size_t odd = random() % (pixels.size() / 4) * 4;
    pixels[odd] = static_cast<std::uint8_t>(pixels[odd] + 90);
  }
}

TEST_P(OverlayKernelVersions, ConvertEqualsTheDefinition) {
  const auto scalar = kernels::AllOverlayKernels().front();
  std::mt19937 random(7);
  for (std::int32_t w = 2; w <= 600; w += w < 70 ? 1 : 61) {
    for (const std::int32_t h : {2, 3, 4, 7, 12}) {
      std::vector<std::uint8_t> pixels = Scattered(w, h, static_cast<std::uint32_t>(w * 100 + h));
      if (random() % 2 == 0) {
        GiveOneColour(pixels, random);
      }
      GuardedPlanes expected(w, h);
      GuardedPlanes actual(w, h);
      kernels::OverlayBlocks blocks = expected.Blocks(pixels);
      kernels::OverlayBlocks same = actual.Blocks(pixels);
      if (random() % 2 == 0) {
        blocks.left = static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(w / 2));
        blocks.right -=
            static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(w / 2 - blocks.left));
        blocks.top = static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(h / 2));
        same.left = blocks.left;
        same.top = blocks.top;
        same.right = blocks.right;
      }
      scalar.convert(blocks);
      GetParam().convert(same);
      ASSERT_EQ(actual.bytes, expected.bytes) << w << "x" << h << " from block " << blocks.left
                                              << ", " << blocks.top << " to " << blocks.right;
    }
  }
}

TEST_P(OverlayKernelVersions, ConvertEqualsTheDefinitionForTheExtremes) {
  // Every corner of the colour cube, at opacities that make the sums smallest and largest.
  std::vector<std::uint8_t> pixels;
  for (const int alpha : {1, 2, 254, 255}) {
    for (int corner = 0; corner < 8; ++corner) {
      for (int repeat = 0; repeat < 4; ++repeat) {
        pixels.insert(pixels.end(), {static_cast<std::uint8_t>(corner & 1 ? 255 : 0),
                                     static_cast<std::uint8_t>(corner & 2 ? 255 : 0),
                                     static_cast<std::uint8_t>(corner & 4 ? 255 : 0),
                                     static_cast<std::uint8_t>(alpha)});
      }
    }
  }
  const auto w = static_cast<std::int32_t>(pixels.size() / 4);
  const std::vector<std::uint8_t> row = pixels;
  pixels.insert(pixels.end(), row.begin(), row.end());
  GuardedPlanes expected(w, 2);
  GuardedPlanes actual(w, 2);
  kernels::AllOverlayKernels().front().convert(expected.Blocks(pixels));
  GetParam().convert(actual.Blocks(pixels));
  EXPECT_EQ(actual.bytes, expected.bytes);
}

INSTANTIATE_TEST_SUITE_P(Fast, OverlayKernelVersions,
                         testing::ValuesIn(kernels::AllOverlayKernels().subspan(1).begin(),
                                           kernels::AllOverlayKernels().end()),
                         [](const auto& version) { return std::string(version.param.name); });

TEST(ConvertArgbToOverlay, GivesTheSameWhenTheClearPartIsLeftOut) {
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
    std::vector<std::uint8_t> pixels =
        Scattered(kWidth, kHeight, static_cast<std::uint32_t>(round));
    for (std::int32_t y = 0; y < kHeight; ++y) {
      for (std::int32_t x = 0; x < kWidth; ++x) {
        if (x < ink.left || x >= ink.right || y < ink.top || y >= ink.bottom) {
          const std::uint8_t clear[] = {255, 0, 255, 0};
          std::memcpy(&pixels[static_cast<std::size_t>(y * kWidth + x) * 4], clear, 4);
        }
      }
    }
    Yv12Overlay whole;
    whole.Resize(kWidth, kHeight);
    ConvertArgbToOverlay(pixels.data(), kWidth * 4, whole);
    ConvertArgbToOverlay(pixels.data(), kWidth * 4, ink, kept);
    constexpr std::size_t kBytes = kWidth * kHeight * 11 / 4;
    ASSERT_TRUE(std::equal(whole.Alpha(), whole.Alpha() + kBytes, kept.Alpha())) << round;

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
