#include "render/overlay.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/render/guarded_picture.h"

namespace {

using support::GuardedPicture;

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
  const Yv12Overlay white = Convert(Bitmap(4, 4, {255, 255, 255, 255}), 4, 4);
  const Yv12Overlay red = Convert(Bitmap(4, 4, {0, 0, 255, 255}), 4, 4);
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(white.Luma()[i], 235);
    EXPECT_EQ(white.Alpha()[i], 255);
    // The weight of blue falls on red in luma only.
    EXPECT_EQ(red.Luma()[i], 41);
  }
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(white.FirstChroma()[i], 128);
    EXPECT_EQ(white.SecondChroma()[i], 128);
    EXPECT_EQ(white.ChromaAlpha()[i], 255);
    EXPECT_EQ(red.FirstChroma()[i], 240);
    EXPECT_EQ(red.SecondChroma()[i], 110);
  }
}

TEST(ConvertArgbToOverlay, LeavesNothingOfATransparentBitmap) {
  const Yv12Overlay overlay = Convert(Bitmap(6, 4, {255, 0, 255, 0}), 6, 4);
  EXPECT_EQ(std::count(overlay.Alpha(), overlay.Alpha() + 24, 0), 24);
  EXPECT_EQ(std::count(overlay.FirstChroma(), overlay.FirstChroma() + 12, 128), 12);
  EXPECT_EQ(std::count(overlay.ChromaAlpha(), overlay.ChromaAlpha() + 6, 0), 6);
  GuardedPicture canvas(8, 8);
  canvas.Scatter(1);
  const GuardedPicture before = canvas;
  BlendOverlay(overlay, 0, 0, canvas.view());
  EXPECT_EQ(canvas, before);
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

TEST(ConvertArgbToOverlay, ConvertsNothingFromASingleRow) {
  Yv12Overlay overlay;
  overlay.Resize(4, 1);
  std::fill_n(overlay.Alpha(), 4, 77);
  ConvertArgbToOverlay(Bitmap(4, 1, {255, 255, 255, 255}).data(), 16, overlay);
  EXPECT_EQ(std::count(overlay.Alpha(), overlay.Alpha() + 4, 77), 4);
}

TEST(ConvertArgbToOverlay, ReadsABitmapThatStandsOnItsHead) {
  std::mt19937 random(5);
  std::vector<std::uint8_t> pixels(10 * 6 * 4);
  std::generate(pixels.begin(), pixels.end(), [&] { return static_cast<std::uint8_t>(random()); });
  std::vector<std::uint8_t> turned;
  for (int row = 5; row >= 0; --row) {
    turned.insert(turned.end(), pixels.begin() + row * 40, pixels.begin() + (row + 1) * 40);
  }
  const Yv12Overlay upright = Convert(pixels, 10, 6);
  Yv12Overlay overlay;
  overlay.Resize(10, 6);
  ConvertArgbToOverlay(turned.data() + 5 * 40, -40, overlay);
  EXPECT_TRUE(std::equal(overlay.Alpha(), overlay.Alpha() + 10 * 6 * 11 / 4, upright.Alpha()));
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
