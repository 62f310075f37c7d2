// Every fast version of the drawing's loops gives the bytes of the reference implementation, and
// touches nothing beside its rectangle or its blocks; the overlays that are made with them blend
// like their samples.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "render/kernels/drawing_kernels.h"
#include "render/text_renderer.h"
#include "tests/render/guarded_picture.h"

namespace {

using kernels::DrawingKernels;
using kernels::PlaneBounds;
using support::GuardedPicture;

TEST(Blend255, IsTheExactMeanRoundedToNearestForEveryInputAndFadeTheOneTowardsNeutral) {
  for (int a = 0; a < 256; ++a) {
    const std::int16_t factor = kernels::FadeFactor(static_cast<std::uint8_t>(a));
    for (int d = 0; d < 256; ++d) {
      for (int s = 0; s < 256; ++s) {
        const int exact = (2 * (s * a + d * (255 - a)) + 255) / 510;
        ASSERT_EQ(Blend255(d, s, a), exact) << "d " << d << " s " << s << " a " << a;
      }
      ASSERT_EQ(kernels::Fade(d, factor), Blend255(d, 128, a)) << "d " << d << " a " << a;
    }
  }
}

constexpr std::int32_t kWidest = 67;
constexpr std::int32_t kRows = 3;
constexpr std::ptrdiff_t kStride = 128;
constexpr std::size_t kBytes = kStride * (kRows + 2);

// Random values, with more than their share of both ends of the range.
std::vector<std::uint8_t> Scattered(std::size_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> bytes(count);
  for (std::uint8_t& byte : bytes) {
    const std::uint32_t draw = random();
    byte = draw % 8 < 2 ? 0 : draw % 8 < 4 ? 255 : static_cast<std::uint8_t>(draw >> 8);
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

TEST_P(KernelVersions, EqualTheReference) {
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
                         version.blendValue(to, kStride, columns, kRows, 16, alpha.data(),
                                            columns + 3);
                       },
                       [&](const auto& version, auto* to, auto columns, auto) {
                         version.fade(to, kStride, columns, kRows, factors.data());
                       }};
  for (const Run& loop : loops) {
    ExpectEqualOverWidthsAndAlignments(loop);
  }
}

TEST_P(KernelVersions, BlendEverySampleAsTheReferenceDoes) {
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

// The planes of an overlay, one after the other, with guard bytes between and around them.
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
  kernels::CoverageBitmap bitmap;

  Coverage(std::int32_t w, std::int32_t h, const PlaneBounds& ink, std::mt19937& random)
      : bytes(static_cast<std::size_t>(w + 5) * h) {
    bitmap.stride = w + 5;
    bitmap.ink = ink;
    for (std::size_t i = 0; i < 3; ++i) {
      bitmap.colour[i] = static_cast<std::uint8_t>(random());
    }
    // Of transparent pixels, which have no weight.
    const auto clear = static_cast<std::uint8_t>(random());
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
        for (const std::uint8_t byte : bitmap.colour) {
          pixels.push_back(opacity == 0 ? clear : byte);
        }
        pixels.push_back(opacity);
      }
    }
    bitmap.coverage = bytes.data();
  }
};

TEST_P(KernelVersions, ConvertBitmapsAsTheReferenceDoes) {
  const kernels::DrawingKernels& scalar = kernels::ScalarKernels();
  std::mt19937 random(7);
  for (std::int32_t w = 2; w <= 600; w += w < 70 ? 1 : 61) {
    for (const std::int32_t h : {2, 3, 4, 7, 12}) {
      const PlaneBounds blocks = SomeBlocks(w, h, random);
      std::vector<std::uint8_t> colours(static_cast<std::size_t>(w) * h);
      const auto check = [&](const std::vector<std::uint8_t>& pixels, bool hasColours,
                             auto convert) {
        GuardedPlanes expected(w, h);
        GuardedPlanes actual(w, h);
        kernels::OverlayPlanes reference = expected.Planes();
        if (!hasColours) {
          reference.luma = reference.firstChroma = reference.secondChroma = colours.data();
        }
        scalar.convertPixels({pixels.data(), w * 4}, reference, blocks);
        convert(actual.Planes());
        ASSERT_EQ(actual.bytes, expected.bytes)
            << w << "x" << h << " from block " << blocks.left << ", " << blocks.top << " to "
            << blocks.right << ", " << blocks.bottom;
      };
      const std::vector<std::uint8_t> pixels =
          Scattered(static_cast<std::size_t>(w) * h * 4, static_cast<std::uint32_t>(w * 100 + h));
      check(pixels, true, [&](const kernels::OverlayPlanes& to) {
        GetParam()->convertPixels({pixels.data(), w * 4}, to, blocks);
      });
      const Coverage coverage(w, h, {0, 0, w, h}, random);
      check(coverage.pixels, false, [&](const kernels::OverlayPlanes& to) {
        GetParam()->convertCoverage(coverage.bitmap, to, blocks);
      });
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, KernelVersions,
                         testing::ValuesIn(kernels::AllKernels().begin(),
                                           kernels::AllKernels().end()),
                         [](const auto& version) { return std::string(version.param->name); });

struct Bgra {
  std::uint8_t b, g, r, a;
};

std::vector<std::uint8_t> Bitmap(std::int32_t w, std::int32_t h, Bgra colour) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(w) * h * 4);
  for (std::size_t i = 0; i < pixels.size(); i += 4) {
    std::memcpy(&pixels[i], &colour, 4);
  }
  return pixels;
}

Yv12Overlay Convert(const std::vector<std::uint8_t>& pixels, std::int32_t w, std::int32_t h) {
  Yv12Overlay overlay;
  overlay.Resize(w, h);
  ConvertArgbToOverlay(pixels.data(), w * 4, overlay);
  return overlay;
}

TEST(ConvertArgbToOverlay, GivesWhiteAndRedTheirStudioValues) {
  // The weight of blue falls on red in luma only.
  for (const auto& [colour, y, v, u] : {std::tuple(Bgra{255, 255, 255, 255}, 235, 128, 128),
                                        {Bgra{0, 0, 255, 255}, 41, 240, 110}}) {
    const Yv12Overlay overlay = Convert(Bitmap(4, 4, colour), 4, 4);
    for (int i = 0; i < 16; ++i) {
      EXPECT_EQ(std::pair(+overlay.Luma()[i], +overlay.Alpha()[i]), std::pair(y, 255));
      EXPECT_EQ(std::tuple(+overlay.FirstChroma()[i / 4], +overlay.SecondChroma()[i / 4],
                           +overlay.ChromaAlpha()[i / 4]),
                std::tuple(v, u, 255));
    }
  }
}

TEST(ConvertArgbToOverlay, KeepsTheColourOfInkFreeOfTransparentNeighbours) {
  std::vector<std::uint8_t> pixels = Bitmap(8, 8, {255, 0, 255, 0});
  const Bgra ink{0, 200, 0, 255};
  std::memcpy(&pixels[(3 * 8 + 3) * 4], &ink, 4);
  const Yv12Overlay overlay = Convert(pixels, 8, 8);
  const Yv12Overlay solid = Convert(Bitmap(8, 8, ink), 8, 8);
  // Inside its own block, and at the blocks beside, above and below it whose chroma it tints.
  const int at = 1 * 4 + 1;
  EXPECT_EQ(overlay.ChromaAlpha()[at], (3 * 255 + 10) / 20);
  EXPECT_EQ(overlay.ChromaAlpha()[at + 1], (255 + 10) / 20);
  EXPECT_EQ(overlay.ChromaAlpha()[at + 4], (255 + 10) / 20);
  EXPECT_EQ(overlay.ChromaAlpha()[at + 5], 0);  // corners do not count
  EXPECT_EQ(overlay.ChromaAlpha()[at - 1], 0);  // beyond the block's own edge
  for (const int block : {at, at + 1, at + 4}) {
    EXPECT_EQ(overlay.FirstChroma()[block], solid.FirstChroma()[block]);
    EXPECT_EQ(overlay.SecondChroma()[block], solid.SecondChroma()[block]);
  }
}

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

// What BlendOverlay does, sample by sample, from all of the overlay.
void BlendEachSample(const Yv12Overlay& overlay, std::int32_t left, std::int32_t top,
                     const Yv12Picture& canvas) {
  const std::int32_t w = overlay.width();
  const std::int32_t x0 = std::max(left, 0);
  const std::int32_t y0 = std::max(top, 0);
  const std::int32_t columns = std::max(std::min(left + w, canvas.width) - x0, 0);
  const std::int32_t rows = std::max(std::min(top + overlay.height(), canvas.height) - y0, 0);
  for (std::int32_t r = 0; r < rows; ++r) {
    for (std::int32_t c = 0; c < columns; ++c) {
      const std::int32_t from = (y0 - top + r) * w + x0 - left + c;
      std::uint8_t& to = canvas.Y()[(y0 + r) * canvas.width + x0 + c];
      to = Blend255(to, overlay.Luma()[from], overlay.Alpha()[from]);
    }
  }
  for (std::int32_t r = 0; r < rows / 2; ++r) {
    for (std::int32_t c = 0; c < columns / 2; ++c) {
      const std::int32_t from = ((y0 - top) / 2 + r) * (w / 2) + (x0 - left) / 2 + c;
      const std::int32_t to = (y0 / 2 + r) * (canvas.width / 2) + x0 / 2 + c;
      const std::uint8_t alpha = overlay.ChromaAlpha()[from];
      canvas.V()[to] = Blend255(canvas.V()[to], overlay.FirstChroma()[from], alpha);
      canvas.U()[to] = Blend255(canvas.U()[to], overlay.SecondChroma()[from], alpha);
    }
  }
}

TEST(BlendOverlay, BlendsWhatLiesInsideTheCanvasWhereverTheInkIs) {
  std::mt19937 random(6);
  // The ink in one part of the bitmap, over all of it, and nowhere.
  for (const int inkWidth : {20, 70, 0}) {
    std::vector<std::uint8_t> pixels = Bitmap(70, 14, {9, 200, 80, 0});
    for (int i = 0; i < inkWidth * 6; ++i) {
      pixels[((4 + i / std::max(inkWidth, 1)) * 70 + (70 - inkWidth) / 2 + i % inkWidth) * 4 + 3] =
          static_cast<std::uint8_t>(random());
    }
    const Yv12Overlay overlay = Convert(pixels, 70, 14);
    for (std::int32_t top = -15; top <= 33; ++top) {
      for (const std::int32_t left : {-71, -70, -45, -8, -7, 0, 1, 2, 9, 14, 40, 79, 80, 81}) {
        GuardedPicture canvas(80, 32);
        canvas.Scatter(7);
        GuardedPicture expected = canvas;
        BlendEachSample(overlay, left, top, expected.view());
        BlendOverlay(overlay, left, top, canvas.view());
        ASSERT_EQ(canvas, expected) << "ink " << inkWidth << " at " << left << "," << top;
      }
    }
  }
}

}  // namespace
