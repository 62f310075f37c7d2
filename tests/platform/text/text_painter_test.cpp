#include "platform/text/text_painter.h"

#include <string>

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
  TextPainting painting;
  painting.text = u"Colour & æ";
  painting.width = 160;
  painting.height = 40;
  painting.textColour = 0xFF3264C8;
  painting.clearColour = 0x00FF00FF;
  const Picture picture = Paint(painter, painting);
  int opaque = 0;
  int partial = 0;
  for (const std::uint32_t pixel : picture.pixels) {
    if (pixel >> 24 == 0) {
      ASSERT_EQ(pixel, 0x00FF00FFU);
      continue;
    }
    ASSERT_EQ(pixel & 0xFFFFFF, 0x3264C8U);
    ++(pixel >> 24 == 255 ? opaque : partial);
  }
  EXPECT_GT(opaque, 50);
  EXPECT_GT(partial, 50);
}

TEST_F(TextPainterTest, EmojiHaveColoursAndTheOpacityOfTheText) {
  const auto strongest = [&](std::u16string_view text, std::uint32_t textColour) {
    TextPainting painting;
    painting.text = text;
    painting.width = 100;
    painting.height = 40;
    painting.textColour = textColour;
    std::uint32_t redOverBlue = 0;
    std::uint32_t alpha = 0;
    for (const std::uint32_t pixel : Paint(painter, painting).pixels) {
      alpha = std::max(alpha, pixel >> 24);
      if (pixel >> 24 > 32 && ((pixel >> 16) & 0xFF) > (pixel & 0xFF)) {
        redOverBlue = std::max(redOverBlue, ((pixel >> 16) & 0xFF) - (pixel & 0xFF));
      }
    }
    return std::pair(redOverBlue, alpha);
  };
  EXPECT_GT(strongest(u"🔴 1", 0xFFFFFFFF).first, 100U);
  EXPECT_EQ(strongest(u"🔴 1", 0xFFFFFFFF).second, 255U);
  EXPECT_EQ(strongest(u"🔴 1", 0x80FFFFFF).second, 128U);
  EXPECT_EQ(strongest(u"1", 0xFFFFFFFF).first, 0U);
}

TEST_F(TextPainterTest, AlignmentIsOfTheBitmapWhateverTheScript) {
  for (const std::u16string_view text :
       {std::u16string_view(u"HEH"), std::u16string_view(u"שבת")}) {
    for (const bool wrap : {true, false}) {
      TextPainting painting;
      painting.text = text;
      painting.width = 300;
      painting.height = 40;
      painting.wrap = wrap;
      const PixelBounds left = Paint(painter, painting).Bounds();
      painting.alignment = TextAlignment::kFar;
      const PixelBounds right = Paint(painter, painting).Bounds();
      painting.alignment = TextAlignment::kCentre;
      const PixelBounds centre = Paint(painter, painting).Bounds();
      EXPECT_LE(left.left, 4);
      EXPECT_GE(right.right, 296);
      EXPECT_NEAR(centre.left - left.left, right.left - centre.left, 1);
      EXPECT_LT(left.top, 20) << "text starts at the top";
      EXPECT_EQ(left.top, right.top);
    }
  }
}

TEST_F(TextPainterTest, WhatDoesNotFitEndsInAnEllipsisOrIsCut) {
  const int advance = Advance();
  TextPainting painting;
  painting.width = 10 * advance;
  painting.height = 52;  // two lines of 24 pixels
  painting.text = u"first li second line third line";
  const Picture wrapped = Paint(painter, painting);
  painting.wrap = false;
  painting.text = u"first li\nsecond li…";
  EXPECT_EQ(wrapped, Paint(painter, painting)) << "between words";

  painting.text = u"abcdefghijklmno";
  const Picture cut = Paint(painter, painting);
  painting.wrap = true;
  const Picture broken = Paint(painter, painting);
  painting.wrap = false;
  painting.text = u"abcdefghij\nklmno";
  EXPECT_EQ(broken, Paint(painter, painting)) << "within a word that is too long";
  painting.text = u"abcdefghijklmno";
  painting.width = 20 * advance;
  EXPECT_EQ(cut, Paint(painter, painting).Crop({0, 0, 10 * advance, 52}));
}

TEST_F(TextPainterTest, ATextWithoutEndShowsItsStart) {
  const std::u16string endless(3000000, u'm');
  TextPainting painting;
  painting.width = 200;
  painting.height = 60;
  painting.text = endless;
  const Picture picture = Paint(painter, painting);
  painting.text = std::u16string_view(endless).substr(0, 1000);
  EXPECT_EQ(picture, Paint(painter, painting));
}

TEST_F(TextPainterTest, TextsOfEveryScriptStandOnTheBaselineOfTheFont) {
  const PixelBounds one{0, 0, Advance(), 60};
  const Picture alone = PaintLine(painter, u"H").Crop(one);
  for (const std::u16string_view text :
       {std::u16string_view(u"H 中"), std::u16string_view(u"H ह"), std::u16string_view(u"H ש"),
        std::u16string_view(u"H 📺")}) {
    EXPECT_EQ(PaintLine(painter, text).Crop(one), alone);
  }
}

TEST_F(TextPainterTest, DamagedTextShowsReplacementCharacters) {
  const Picture replaced = PaintLine(painter, u"a\uFFFDb");
  EXPECT_EQ(painter.CountMissingGlyphs(), 0);
  const char16_t lowAlone[] = {u'a', 0xDC00, u'b', 0};
  const char16_t highAlone[] = {u'a', 0xD83D, u'b', 0};
  EXPECT_EQ(PaintLine(painter, lowAlone), replaced);
  EXPECT_EQ(PaintLine(painter, highAlone), replaced);
  EXPECT_EQ(PaintLine(painter, std::u16string_view(u"a\0b", 3)), replaced);
}

TEST_F(TextPainterTest, NothingOfAFormerPaintingIsLeft) {
  for (const std::u16string_view text :
       {std::u16string_view(u"i"), std::u16string_view(u"🔴"), std::u16string_view()}) {
    for (const std::uint32_t clear : {0x00FF00FFU, 0x80000000U}) {
      TextPainting painting;
      painting.width = 120;
      painting.height = 40;
      painting.text = u"Former 🟢";
      Paint(painter, painting);
      painting.text = u"Former";
      Paint(painter, painting);
      painting.text = text;
      painting.clearColour = clear;
      const Picture again = Paint(painter, painting);
      TextPainter fresh("Lucon.ttf");
      ASSERT_TRUE(fresh.SetFont(u"", 15));
      EXPECT_EQ(again, Paint(fresh, painting));
      EXPECT_EQ(again.Bounds(clear), again.ink);
    }
  }
}

TEST_F(TextPainterTest, RefusesSizesThatNoBitmapHas) {
  TextPainting painting;
  painting.text = u"x";
  for (const auto& [width, height] : {std::pair(0, 10), std::pair(10, 0), std::pair(-2, 10),
                                      std::pair(TextPainter::kMaxSide + 1, 2)}) {
    painting.width = width;
    painting.height = height;
    EXPECT_EQ(painter.Paint(painting).Width(), 0);
  }
  painting.width = 1;
  painting.height = 1;
  EXPECT_EQ(painter.Paint(painting).Width(), 1);
  painting.width = TextPainter::kMaxSide;
  painting.height = 30;
  EXPECT_FALSE(painter.Paint(painting).Ink().Empty());
}

}  // namespace
