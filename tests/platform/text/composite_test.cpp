#include "platform/text/composite.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

namespace os {
namespace {

TEST(Composite, PutsTheColourOverTheClearColourByItsCoverage) {
  const BgraPixel transparent{255, 0, 255, 0};
  const BgraPixel orange{50, 100, 200, 255};
  const BgraPixel halfBlack{0, 0, 0, 128};
  const BgraPixel white{255, 255, 255, 255};
  // Nothing drawn leaves what is under, the colour of a transparent pixel too.
  EXPECT_EQ(CompositePixel(transparent, orange, 0), transparent);
  EXPECT_EQ(CompositePixel(halfBlack, white, 0), halfBlack);
  // On a transparent pixel the colour stays whole, only its opacity changes.
  EXPECT_EQ(CompositePixel(transparent, orange, 1), (BgraPixel{50, 100, 200, 1}));
  EXPECT_EQ(CompositePixel(transparent, orange, 77), (BgraPixel{50, 100, 200, 77}));
  EXPECT_EQ(CompositePixel(halfBlack, white, 255), white);
  // 128/255 over 128/255: opacity 128 + 128 * 127 / 255 = 191.7; colour 255 * 128 / 191.7 = 170.2.
  EXPECT_EQ(CompositePixel(halfBlack, white, 128), (BgraPixel{170, 170, 170, 192}));
  // The alpha of the colour multiplies the coverage.
  EXPECT_EQ(CompositePixel(transparent, {50, 100, 200, 128}, 128), (BgraPixel{50, 100, 200, 64}));
}

TEST(Composite, FindsTheBoundsOfInkAtEveryPosition) {
  constexpr int kHeight = 3;
  for (const int width : {1, 2, 7, 8, 63, 64, 65, 130, 191}) {
    for (int x = 0; x < width; ++x) {
      for (int y = 0; y < kHeight; ++y) {
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(width) * kHeight, 0);
        bytes[static_cast<std::size_t>(y * width + x)] = 1;
        const PixelRows<const std::uint8_t> rows{bytes.data(), width};
        ASSERT_EQ(BoundsOfInk(rows, width, kHeight), (PixelBounds{x, y, x + 1, y + 1}))
            << "width " << width;
        bytes[static_cast<std::size_t>((kHeight - 1) * width + width / 2)] = 255;
        ASSERT_EQ(BoundsOfInk(rows, width, kHeight),
                  (PixelBounds{std::min(x, width / 2), y, std::max(x, width / 2) + 1, kHeight}))
            << "width " << width;
      }
    }
  }
  const std::vector<std::uint8_t> nothing(40, 0);
  EXPECT_TRUE(BoundsOfInk({nothing.data(), 20}, 20, 2).Empty());
}

TEST(Composite, ColourGlyphsComeOutStraight) {
  // Native pixels, multiplied by alpha: an opaque, a half transparent and a transparent one.
  const std::vector<std::uint32_t> drawn{0xFFC86432, 0x80643219, 0x00000000};
  std::vector<std::uint8_t> bytes(drawn.size() * 4);
  std::memcpy(bytes.data(), drawn.data(), bytes.size());
  std::vector<std::uint8_t> result(bytes.size(), 0xEE);
  CompositeColour({bytes.data(), 12}, 255, 0x00FF00FF, {0, 0, 3, 1}, {result.data(), 12});
  EXPECT_EQ(result,
            (std::vector<std::uint8_t>{50, 100, 200, 255, 50, 100, 199, 128, 255, 0, 255, 0}));
  CompositeColour({bytes.data(), 12}, 128, 0x00FF00FF, {0, 0, 1, 1}, {result.data(), 12});
  EXPECT_EQ(result[3], 128);
}

}  // namespace
}  // namespace os
