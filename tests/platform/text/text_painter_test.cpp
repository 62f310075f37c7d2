#include "platform/text/text_painter.h"

#include <algorithm>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "picture.h"

namespace {

using os::PixelBounds;
using os::TextAlignment;
using os::TextPainter;
using os::TextPainting;

// A painter with the private font, which is monospaced, at 15 points: 20 pixels.
class TextPainterTest : public testing::Test {
 protected:
  TextPainterTest() : painter("Lucon.ttf") {
    EXPECT_TRUE(painter.SetFont(u"No such family", 15)) << "Lucon.ttf is not beside the tests";
  }

  // Pixels from one character to the next.
  int Advance() {
    const PixelBounds one = PaintLine(painter, u"|").Bounds();
    const PixelBounds two = PaintLine(painter, u"||").Bounds();
    return two.right - one.right;
  }

  TextPainter painter;
};

TEST_F(TextPainterTest, APointIsFourThirdsOfAPixel) {
  // The font's characters are 1233/2048 of its size wide.
  EXPECT_EQ(Advance(), 12);  // of 20 pixels
  ASSERT_TRUE(painter.SetFont(u"", 60));
  EXPECT_EQ(Advance(), 48);  // of 80 pixels
}

TEST_F(TextPainterTest, TextKeepsItsExactColourAtEveryCoverage) {
  const Picture picture = Paint(painter, {.text = u"Colour & æ",
                                          .width = 160,
                                          .height = 40,
                                          .textColour = 0xFF3264C8,
                                          .clearColour = 0x00FF00FF});
  int opaque = 0;
  int partial = 0;
  for (const std::uint32_t pixel : picture.pixels) {
    const std::uint32_t alpha = pixel >> 24;
    ASSERT_EQ(pixel & 0xFFFFFF, alpha == 0 ? 0xFF00FFU : 0x3264C8U);
    opaque += alpha == 255 ? 1 : 0;
    partial += alpha > 0 && alpha < 255 ? 1 : 0;
  }
  EXPECT_GT(opaque, 50);
  EXPECT_GT(partial, 50);
}

TEST_F(TextPainterTest, EmojiHaveColoursAndTheOpacityOfTheText) {
  for (const auto& [text, textColour, isRed, opacity] : {std::tuple(u"🔴 1", 0xFFFFFFFF, true, 255U),
                                                         {u"🔴 1", 0x80FFFFFF, true, 128U},
                                                         {u"1", 0xFFFFFFFF, false, 255U}}) {
    bool hasRed = false;
    std::uint32_t alpha = 0;
    for (const std::uint32_t pixel :
         Paint(painter, {.text = text, .width = 100, .height = 40, .textColour = textColour})
             .pixels) {
      alpha = std::max(alpha, pixel >> 24);
      hasRed |= pixel >> 24 > 32 && ((pixel >> 16) & 0xFF) > (pixel & 0xFF) + 100;
    }
    EXPECT_EQ(std::pair(hasRed, alpha), std::pair(isRed, opacity));
  }
}

TEST_F(TextPainterTest, WhatDoesNotFitEndsInAnEllipsisOrIsCut) {
  const int width = 10 * Advance();
  const auto paint = [&](std::u16string_view text, bool wrap, int scale = 1) {
    // Two lines of 24 pixels.
    return Paint(painter, {.text = text, .width = scale * width, .height = 52, .wrap = wrap});
  };
  EXPECT_EQ(paint(u"first li second line third line", true), paint(u"first li\nsecond li…", false))
      << "between words";
  EXPECT_EQ(paint(u"abcdefghijklmno", true), paint(u"abcdefghij\nklmno", false))
      << "within a word that is too long";
  EXPECT_EQ(paint(u"abcdefghijklmno", false),
            paint(u"abcdefghijklmno", false, 2).Crop({0, 0, width, 52}));
  // A text without an end shows its start.
  const std::u16string endless(3000000, u'm');
  EXPECT_EQ(paint(endless, true), paint(std::u16string_view(endless).substr(0, 1000), true));
}

TEST_F(TextPainterTest, DamagedTextShowsReplacementCharacters) {
  const Picture replaced = PaintLine(painter, u"a\uFFFDb");
  EXPECT_EQ(painter.CountMissingGlyphs(), 0);
  for (const char16_t odd : {char16_t{0xDC00}, char16_t{0xD83D}, char16_t{0}}) {
    EXPECT_EQ(PaintLine(painter, std::u16string{u'a', odd, u'b'}), replaced);
  }
}

TEST_F(TextPainterTest, NothingOfAFormerPaintingIsLeft) {
  for (const std::u16string_view text : {u"i", u"🔴", u""}) {
    for (const std::uint32_t clear : {0x00FF00FFU, 0x80000000U}) {
      for (const std::u16string_view former : {u"Former 🟢", u"Former"}) {
        Paint(painter, {.text = former, .width = 120, .height = 40});
      }
      const TextPainting painting{.text = text, .width = 120, .height = 40, .clearColour = clear};
      const Picture again = Paint(painter, painting);
      TextPainter fresh("Lucon.ttf");
      ASSERT_TRUE(fresh.SetFont(u"", 15));
      EXPECT_EQ(again, Paint(fresh, painting));
      EXPECT_EQ(again.Bounds(clear), again.ink);
    }
  }
}

TEST_F(TextPainterTest, RefusesSizesThatNoBitmapHas) {
  constexpr int kMax = TextPainter::kMaxSide;
  for (const auto& [width, height, painted] : {std::tuple(0, 10, 0),
                                               {10, 0, 0},
                                               {-2, 10, 0},
                                               {kMax + 1, 2, 0},
                                               {1, 1, 1},
                                               {kMax, 30, kMax}}) {
    EXPECT_EQ(painter.Paint({.text = u"x", .width = width, .height = height}).Width(), painted);
  }
}

}  // namespace
