#include "render/text_renderer.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/render/guarded_picture.h"

namespace {

using support::Area;
using support::GuardedPicture;

constexpr LabelColour kWhite{255, 255, 255, 255};
constexpr LabelColour kTransparent{255, 0, 255, 0};

// Draws onto a canvas that is black before every drawing.
class TextRendererTest : public testing::Test {
 protected:
  TextRendererTest() {
    renderer.SetBackgroundColour(kTransparent);
    renderer.SetFontName(u"DejaVu Sans Mono");
    renderer.SetFontSize(12);
  }

  const GuardedPicture& Draw(std::u16string_view text, const LabelRect& rect = {20, 10, 180, 60}) {
    canvas.Paint(16, 128, 128);
    renderer.SetTarget(canvas.view());
    renderer.Draw(rect, text);
    return canvas;
  }
  Area Ink() const { return ChangedArea(canvas, black); }
  // Whether the change made by the last statement costs one rendering, and only one.
  bool RendersOnce(std::u16string_view text, const LabelRect& rect = {20, 10, 180, 60}) {
    const std::uint64_t before = renderer.RenderCount();
    Draw(text, rect);
    const std::uint64_t after = renderer.RenderCount();
    const GuardedPicture drawn = canvas;
    Draw(text, rect);
    EXPECT_EQ(canvas, drawn) << "the kept overlay is blended";
    EXPECT_EQ(renderer.RenderCount(), after) << "nothing changed";
    return after == before + 1;
  }

  GuardedPicture canvas{200, 80};
  const GuardedPicture black{200, 80};
  TextRenderer renderer;
};

TEST_F(TextRendererTest, RendersOnlyWhenSomethingThatShowsHasChanged) {
  EXPECT_TRUE(RendersOnce(u"Label"));
  EXPECT_TRUE(RendersOnce(u"Labels"));
  renderer.SetFontName(u"DejaVu Sans");
  EXPECT_TRUE(RendersOnce(u"Labels"));
  renderer.SetFontSize(13);
  EXPECT_TRUE(RendersOnce(u"Labels"));
  renderer.SetTextColour({255, 128, 0, 255});
  EXPECT_TRUE(RendersOnce(u"Labels"));
  renderer.SetBackgroundColour({0, 0, 0, 255});
  EXPECT_TRUE(RendersOnce(u"Labels"));
  renderer.SetAlignment(0);
  EXPECT_TRUE(RendersOnce(u"Labels"));
  renderer.SetPixelAspect({16, 15});
  EXPECT_TRUE(RendersOnce(u"Labels"));
  EXPECT_TRUE(RendersOnce(u"Labels", {20, 10, 190, 60})) << "another size";

  const std::uint64_t rendered = renderer.RenderCount();
  renderer.SetPixelAspect({32, 30});
  renderer.SetTextColour({255, 128, 0, 255});
  Draw(u"Labels", {0, 0, 170, 50});
  Draw(u"Labels", {-90, -20, 80, 30});
  Draw(u"Labels", {1000, 10, 1170, 60});
  renderer.SetNoWrap(true);
  Draw(u"Labels", {20, 10, 190, 60});
  EXPECT_EQ(renderer.RenderCount(), rendered) << "the same ratio, colour and size";
  EXPECT_TRUE(RendersOnce(u""));
}

TEST_F(TextRendererTest, NothingIsDrawnWithoutATargetOrASize) {
  renderer.Draw({0, 0, 100, 40}, u"Nowhere");
  EXPECT_EQ(renderer.RenderCount(), 0U);
  for (const LabelRect& rect :
       {LabelRect{20, 10, 20, 60}, LabelRect{20, 10, 180, 9}, LabelRect{0, 0, 40000, 20},
        LabelRect{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}}) {
    Draw(u"Nothing", rect);
    EXPECT_EQ(canvas, black);
  }
  EXPECT_EQ(renderer.RenderCount(), 0U);
}

TEST_F(TextRendererTest, AnOddRectangleGrowsToTheRightAndToTheBottom) {
  renderer.SetBackgroundColour({255, 255, 255, 255});
  Draw(u"", {21, 11, 60, 40});
  EXPECT_EQ(Ink(), (Area{21, 11, 61, 41}));
  Draw(u"", {21, 11, 61, 41});
  EXPECT_EQ(Ink(), (Area{21, 11, 61, 41}));
}

TEST_F(TextRendererTest, AlignsByTheThreeValuesAndKeepsTheFormatForOthers) {
  Draw(u"ab");
  const Area centre = Ink();
  EXPECT_NEAR(centre.left + centre.right, 200, 3) << "centred from the start";
  renderer.SetAlignment(0);
  Draw(u"ab");
  const Area left = Ink();
  EXPECT_LT(left.left, 24);
  renderer.SetAlignment(1);
  Draw(u"ab");
  EXPECT_GT(Ink().right, 176);
  const Area right = Ink();
  renderer.SetAlignment(7);
  Draw(u"ab");
  EXPECT_EQ(Ink(), right);
  renderer.SetFontSize(20);
  Draw(u"ab");
  EXPECT_LT(Ink().left, 24) << "a new font starts from the left";
}

TEST_F(TextRendererTest, NoWrapTakesEffectWithTheNextFont) {
  const std::u16string_view text = u"several words that need several lines";
  Draw(text);
  const Area wrapped = Ink();
  renderer.SetNoWrap(true);
  Draw(text);
  EXPECT_EQ(Ink(), wrapped);
  renderer.SetFontSize(11);
  Draw(text);
  EXPECT_LT(Ink().bottom, 30) << "one line";
  EXPECT_GT(Ink().right - Ink().left, 150) << "cut at both edges of the rectangle";
}

TEST_F(TextRendererTest, KeepsTheShapeOfTextOnPixelsThatAreNotSquare) {
  const auto size = [&](const Ratio& aspect) {
    renderer.SetPixelAspect(aspect);
    Draw(u"HHHHHHHH");
    const Area ink = Ink();
    return std::pair(ink.right - ink.left, ink.bottom - ink.top);
  };
  const auto [width, height] = size({1, 1});
  const auto wide = size({2, 1});
  EXPECT_NEAR(wide.first, width / 2, 2);
  EXPECT_NEAR(wide.second, height, 1);
  const auto tall = size({1, 2});
  EXPECT_NEAR(tall.first, width, 1);
  EXPECT_NEAR(tall.second, height / 2, 1);
}

TEST_F(TextRendererTest, AFontThatIsNotInstalledIsReplacedByThePrivateOne) {
  renderer.SetFontName(u"No such family");
  const GuardedPicture replaced = Draw(u"Replaced");
  EXPECT_EQ(renderer.Painter().FontFamily(), "DejaVu Sans Mono");
  renderer.SetFontName(u"DejaVu Sans Mono");
  EXPECT_EQ(Draw(u"Replaced"), replaced);
}

TEST_F(TextRendererTest, ColouredTextHasNoFringe) {
  // Every sample lies between the one under it and the text's own, whatever the background.
  struct Case {
    LabelColour colour;
    std::uint8_t y, v, u;
  };
  for (const Case& each :
       {Case{{255, 0, 0, 255}, 235, 128, 128}, Case{{255, 0, 0, 255}, 16, 128, 128},
        Case{{0, 255, 0, 255}, 81, 240, 90}, Case{{0, 0, 255, 255}, 210, 146, 16},
        Case{{255, 255, 0, 128}, 41, 110, 240}}) {
    renderer.SetTextColour(each.colour);
    canvas.Paint(each.y, each.v, each.u);
    renderer.SetTarget(canvas.view());
    renderer.Draw({20, 10, 180, 60}, u"Fringe Ww/\\");
    const Ycbcr88 text = RgbToYcbcr601(each.colour.b, each.colour.g, each.colour.r);
    const auto between = [](const std::uint8_t* plane, int samples, int under, int over) {
      return std::all_of(plane, plane + samples, [&](int sample) {
        return sample >= std::min(under, over) && sample <= std::max(under, over);
      });
    };
    const Yv12Picture planes = canvas.view();
    EXPECT_TRUE(between(planes.Y(), 200 * 80, each.y, (text.y + 128) >> 8));
    EXPECT_TRUE(between(planes.V(), 100 * 40, each.v, std::clamp((text.p + 128) >> 8, 16, 240)));
    EXPECT_TRUE(between(planes.U(), 100 * 40, each.u, std::clamp((text.q + 128) >> 8, 16, 240)));
    EXPECT_NE(canvas, GuardedPicture(200, 80, each.y, each.v, each.u));
  }
}

}  // namespace
