// Labels: where they lie, what they show, and when they are made again.
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "render/drawing_engine.h"
#include "render/label_font.h"
#include "tests/render/guarded_picture.h"

namespace {

using support::GuardedPicture;

TEST(Layout, FollowsTheCanvas) {
  for (const auto& [height, size] : {std::pair(1080, 16), {720, 11}, {0, 8}, {4320, 48}}) {
    EXPECT_EQ(LabelFontSize(height), size) << height;
  }
  EXPECT_EQ(qorp::PixelAspect(1920, 1080, {16, 9}), (qorp::WideRatio{1, 1}));
  EXPECT_EQ(qorp::PixelAspect(720, 576, {4, 3}), (qorp::WideRatio{16, 15}));
  EXPECT_EQ(qorp::PixelAspect(1920, 1080, {0, 9}), (qorp::WideRatio{1, 1}));
}

TEST(LabelColour, ReadsFourFormsAndNothingElse) {
  for (const auto& [text, argb] : {std::pair("#F80", 0xFFFF8800U),
                                   {"#8F80", 0x88FF8800U},
                                   {"#00ff7F", 0xFF00FF7FU},
                                   {"#aBc09e1D", 0xABC09E1DU}}) {
    EXPECT_EQ(ReadLabelColour(text)->Argb(), argb) << text;
  }
  for (const char* text : {"", "#", "#12", "#12345", "#123456789", "FF0000", "#GG0000", "# 80",
                           " #F80", "#0x0", "#FF00\xC3\xA9"}) {
    EXPECT_FALSE(ReadLabelColour(text).has_value()) << text;
  }
}

// A wall of 720x540 square pixels (labels of 8 points) with a grey window of 160x90.
class LabelTest : public testing::Test {
 protected:
  GuardedPicture Draw(std::int32_t x, std::int32_t y) {
    GuardedPicture canvas(720, 540);
    const std::vector<WindowState> windows{{picture.data(), true, x, y, 160, 90}};
    MosaicDrawer().Draw(labels, windows, std::vector<WindowOverlays>(1), canvas.view(), {4, 3});
    return canvas;
  }
  std::uint64_t Rendered() { return labels.Find(0)->Renderer().RenderCount(); }

  GuardedPicture picture{160, 90, 100, 90, 160};
  Compose labels{1};
};

TEST_F(LabelTest, IsThePaintersBitmapBlendedUnderTheWindow) {
  os::TextPainter painter("Lucon.ttf");
  painter.SetFont(u"Segoe UI", 8);
  os::TextPainting painting;
  painting.width = 160;
  painting.height = 32;
  painting.clearColour = 0x00FF00FF;
  painting.alignment = os::TextAlignment::kCentre;
  // One label after the other in the same place: nothing of a longer text or of a colour glyph may
  // stay behind.
  for (const auto& [utf8, utf16, colour, argb] :
       std::vector<std::tuple<std::string, std::u16string_view, std::string, std::uint32_t>>{
           {"Ünïcödé ש on two long lines", u"Ünïcödé ש on two long lines", "#80FF8000", 0x80FF8000},
           {"ab", u"ab", "#FFFFFFFF", 0xFFFFFFFF},
           {"Ünïcödé ש 📺", u"Ünïcödé ש 📺", "#80FF8000", 0x80FF8000},
           {std::string("a\xED\xA0\x80\0", 5), u"a\xFFFD\xFFFD", "#FF00FF00", 0xFF00FF00},
           {"", u"", "#FF00FF00", 0xFF00FF00}}) {
    SetLabelText(labels, 0, utf8);
    ParseLabelColour(labels, 0, colour.c_str());
    painting.text = utf16;
    painting.textColour = argb;
    std::vector<std::uint8_t> pixels(160 * 32 * 4);
    painter.Paint(painting).WriteArgb(pixels.data(), 160 * 4);
    Yv12Overlay overlay;
    overlay.Resize(160, 32);
    ConvertArgbToOverlay(pixels.data(), 160 * 4, overlay);
    GuardedPicture expected(720, 540);
    CopyPictureClipped(picture.data(), 160, 90, expected.view(), 100, 50);
    BlendOverlay(overlay, 100, 142, expected.view());
    EXPECT_EQ(Draw(100, 50), expected) << utf8;
  }
}

TEST_F(LabelTest, IsKeptUntilItsTextOrColourChanges) {
  SetLabelText(labels, 0, "Stays");
  const GuardedPicture shown = Draw(100, 100);
  EXPECT_EQ(Draw(100, 100), shown);
  SetLabelText(labels, 0, "");
  EXPECT_NE(Draw(100, 100), shown);
  SetLabelText(labels, 0, "Stays");
  EXPECT_EQ(Draw(100, 100), shown);
  EXPECT_EQ(Rendered(), 1U) << "the overlay was kept meanwhile";
  // An invalid colour keeps the former one; the first assignment of all counts as a change.
  for (const char* const none : {static_cast<const char*>(nullptr), "#12345", ""}) {
    ParseLabelColour(labels, 0, none);
    EXPECT_EQ(Draw(100, 100), shown);
    EXPECT_EQ(Rendered(), 2U);
  }
  ParseLabelColour(labels, 0, "#0F0");
  EXPECT_NE(Draw(100, 100), shown);
  EXPECT_EQ(Rendered(), 3U);
}

TEST_F(LabelTest, IsNotDrawnFarOutsideNorForAWindowThatHasNone) {
  SetLabelText(labels, 0, "Far away");
  const GuardedPicture black(720, 540);
  constexpr std::int32_t kFar = INT32_MAX - 1;
  for (const auto& [x, y] :
       {std::pair(kFar, kFar), std::pair(-kFar, -kFar), std::pair(0, 5000), std::pair(0, kFar)}) {
    EXPECT_EQ(Draw(x, y), black);
  }
  for (const std::int32_t index : {-1, 1, 1000000}) {
    ParseLabelColour(labels, index, "#F00");
    SetLabelText(labels, index, "nobody's");
    EXPECT_EQ(labels.Find(index), nullptr);
  }
  EXPECT_EQ(Compose(-3).LabelCount(), 0);
}

// Draws onto a canvas that is black before every drawing.
class TextRendererTest : public testing::Test {
 protected:
  TextRendererTest() {
    renderer.SetBackgroundColour({255, 0, 255, 0});
    renderer.SetFontName(u"DejaVu Sans Mono");
    renderer.SetFontSize(12);
  }
  // The area of the ink.
  support::Area Draw(std::u16string_view text, const LabelRect& rect = {20, 10, 180, 60}) {
    canvas.Paint(16, 128, 128);
    renderer.SetTarget(canvas.view());
    renderer.Draw(rect, text);
    return ChangedArea(canvas, GuardedPicture(200, 80));
  }
  GuardedPicture canvas{200, 80};
  TextRenderer renderer;
};

TEST_F(TextRendererTest, RendersOnlyWhenSomethingThatShowsHasChanged) {
  std::u16string text = u"Label";
  LabelRect rect{20, 10, 180, 60};
  const std::function<void()> changes[] = {
      [] {},
      [&] { text = u"Labels"; },
      [&] { renderer.SetFontName(u"DejaVu Sans"); },
      [&] { renderer.SetFontSize(13); },
      [&] {
        renderer.SetTextColour({255, 128, 0, 255});
      },
      [&] {
        renderer.SetBackgroundColour({0, 0, 0, 255});
      },
      [&] { renderer.SetAlignment(0); },
      [&] {
        renderer.SetPixelAspect({16, 15});
      },
      [&] { rect.right = 190; },
  };
  for (std::uint64_t i = 0; i < std::size(changes); ++i) {
    changes[i]();
    Draw(text, rect);
    Draw(text, rect);
    EXPECT_EQ(renderer.RenderCount(), i + 1);
  }
  // The same ratio, colour and size.
  renderer.SetPixelAspect({32, 30});
  renderer.SetTextColour({255, 128, 0, 255});
  Draw(text, {-90, -20, 80, 30});
  renderer.SetNoWrap(true);
  Draw(text, rect);
  EXPECT_EQ(renderer.RenderCount(), std::size(changes));
}

TEST_F(TextRendererTest, DrawsIntoRectanglesOfAnySize) {
  renderer.Draw({0, 0, 100, 40}, u"Nowhere");
  for (const LabelRect& rect :
       {LabelRect{20, 10, 20, 60}, LabelRect{20, 10, 180, 9}, LabelRect{0, 0, 40000, 20},
        LabelRect{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}}) {
    EXPECT_EQ(Draw(u"Nothing", rect), support::Area{});
  }
  EXPECT_EQ(renderer.RenderCount(), 0U);
  renderer.SetBackgroundColour({255, 255, 255, 255});
  EXPECT_EQ(Draw(u"", {21, 11, 60, 40}), (support::Area{21, 11, 61, 41})) << "odd ones grow";
}

TEST_F(TextRendererTest, SetsTextByAlignmentAspectAndFont) {
  const support::Area centre = Draw(u"ab");
  EXPECT_NEAR(centre.left + centre.right, 200, 3) << "centred from the start";
  renderer.SetAlignment(0);
  EXPECT_LT(Draw(u"ab").left, 24);
  renderer.SetAlignment(1);
  const support::Area right = Draw(u"ab");
  EXPECT_GT(right.right, 176);
  renderer.SetAlignment(7);
  EXPECT_EQ(Draw(u"ab"), right) << "no such alignment";
  renderer.SetPixelAspect({2, 1});
  const support::Area wide = Draw(u"ab");
  EXPECT_NEAR(wide.right - wide.left, (right.right - right.left) / 2, 2);
  EXPECT_NEAR(wide.right, 100 + (right.right - 100) / 2, 2) << "about the centre";
  EXPECT_NEAR(wide.bottom - wide.top, right.bottom - right.top, 1);
  renderer.SetPixelAspect({1, 2});
  const support::Area tall = Draw(u"ab");
  EXPECT_NEAR(tall.right - tall.left, right.right - right.left, 1);
  EXPECT_NEAR(tall.bottom - tall.top, (right.bottom - right.top) / 2, 2);
  EXPECT_NEAR(tall.top, 35 + (right.top - 35) / 2, 2);
  renderer.SetFontName(u"No such family");
  Draw(u"ab");
  EXPECT_EQ(renderer.Painter().FontFamily(), "DejaVu Sans Mono") << "the private font";
}

}  // namespace
