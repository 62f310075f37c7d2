#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "render/label_colour.h"
#include "render/mosaic_drawer.h"
#include "tests/render/guarded_picture.h"

namespace {

using support::Area;
using support::GuardedPicture;

// A wall of 720x540 square pixels (labels of 8 points) with grey windows of 160x90.
class DrawWindowsTest : public testing::Test {
 protected:
  WindowState Window(std::int32_t x, std::int32_t y) {
    return {picture.data(), true, x, y, picture.width(), picture.height()};
  }
  const GuardedPicture& Draw(const std::vector<WindowState>& windows) {
    canvas.Paint(16, 128, 128);
    DrawInto(canvas, labels, windows);
    return canvas;
  }
  static void DrawInto(GuardedPicture& target, Compose& with,
                       const std::vector<WindowState>& windows) {
    MosaicDrawer().Draw(with, windows, std::vector<WindowOverlays>(windows.size()), target.view(),
                        4, 3);
  }
  // What a label adds to the canvas that the windows alone give.
  Area LabelArea(const std::vector<WindowState>& windows) {
    const GuardedPicture with = Draw(windows);
    Compose none(static_cast<std::int32_t>(windows.size()));
    GuardedPicture without(canvas.width(), canvas.height());
    DrawInto(without, none, windows);
    return ChangedArea(with, without);
  }
  std::uint64_t Rendered(std::int32_t index) {
    return labels.Find(index)->Renderer().RenderCount();
  }

  GuardedPicture canvas{720, 540};
  GuardedPicture picture{160, 90, 100, 90, 160};
  Compose labels{3};
};

TEST(Layout, TheLabelsSizeFollowsTheCanvas) {
  EXPECT_EQ(LabelFontSize(1080), 16);
  EXPECT_EQ(LabelFontSize(720), 11);
  EXPECT_EQ(LabelFontSize(576), 9);
  EXPECT_EQ(LabelFontSize(400), 8);
  EXPECT_EQ(LabelFontSize(0), 8);
  EXPECT_EQ(LabelFontSize(2160), 32);
  EXPECT_EQ(LabelFontSize(4320), 48);
}

TEST(Layout, PixelsAreAsWideAsTheDisplayMakesThem) {
  EXPECT_EQ(PixelAspect(1920, 1080, 16, 9), Ratio(1, 1));
  EXPECT_EQ(PixelAspect(720, 576, 4, 3), Ratio(16, 15));
  EXPECT_EQ(PixelAspect(720, 480, 4, 3), Ratio(8, 9));
  EXPECT_EQ(PixelAspect(1440, 1080, 32, 18), Ratio(4, 3));
  for (const std::int32_t none : {0, -16}) {
    EXPECT_EQ(PixelAspect(1920, 1080, none, 9), Ratio(1, 1));
    EXPECT_EQ(PixelAspect(1920, none, 4, 3), Ratio(1, 1));
  }
}

TEST_F(DrawWindowsTest, ALabelLiesCentredUnderItsWindow) {
  SetLabelText(labels, 0, "Label");
  const Area label = LabelArea({Window(100, 50)});
  EXPECT_GE(label.top, 50 + 90 + 2);
  EXPECT_LT(label.bottom, 50 + 90 + 2 + 16) << "the text starts at the top";
  EXPECT_NEAR(label.left + label.right, 2 * (100 + 80), 3);

  labels.Find(0)->Renderer().SetBackgroundColour({255, 255, 255, 255});
  EXPECT_EQ(LabelArea({Window(100, 50)}), (Area{100, 142, 260, 174}));
  WindowState odd = Window(100, 50);
  odd.w = 159;
  EXPECT_EQ(LabelArea({odd}), (Area{100, 142, 260, 174})) << "one pixel wider than the window";
}

TEST_F(DrawWindowsTest, ALabelIsThePaintersBitmapBlendedIntoTheCanvas) {
  const WindowState window = Window(100, 50);
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
           {"c", u"c", "#FF00FF00", 0xFF00FF00},
           {" ", u" ", "#FF00FF00", 0xFF00FF00}}) {
    SetLabelText(labels, 0, utf8);
    ParseLabelColour(labels, 0, colour.c_str());
    const GuardedPicture drawn = Draw({window});

    painting.text = utf16;
    painting.textColour = argb;
    std::vector<std::uint8_t> pixels(160 * 32 * 4);
    painter.Paint(painting).WriteArgb(pixels.data(), 160 * 4);
    Yv12Overlay overlay;
    overlay.Resize(160, 32);
    ConvertArgbToOverlay(pixels.data(), 160 * 4, overlay);
    GuardedPicture expected(canvas.width(), canvas.height());
    CopyPictureClipped(window.picture, window.w, window.h, expected.view(), 100, 50);
    BlendOverlay(overlay, 100, 142, expected.view());
    EXPECT_EQ(drawn, expected) << utf8;
  }
}

TEST_F(DrawWindowsTest, LabelsAreMatchedByPositionAndEndWithTheCount) {
  SetLabelText(labels, 0, "0");
  SetLabelText(labels, 1, "1");
  SetLabelText(labels, 2, "2");
  WindowState disabled = Window(0, 0);
  disabled.enabled = false;
  WindowState empty = Window(200, 0);
  empty.picture = nullptr;
  const GuardedPicture last = Draw({disabled, empty, Window(400, 0), Window(400, 300)});
  EXPECT_EQ(Rendered(0), 0U);
  EXPECT_EQ(Rendered(1), 0U);
  EXPECT_EQ(Rendered(2), 1U);
  EXPECT_EQ(last.Y(0, 0), 16);
  EXPECT_EQ(last.Y(200, 0), 16);
  EXPECT_EQ(last.Y(400, 0), 100);
  EXPECT_EQ(last.Y(400, 300), 16) << "there is no fourth label";
}

// Where it is cut off at the edges of the canvas, the comparison of blends and of whole mosaics
// tells.
TEST_F(DrawWindowsTest, NothingShowsOfALabelFarOutside) {
  SetLabelText(labels, 0, "Far away");
  const GuardedPicture black(canvas.width(), canvas.height());
  constexpr std::int32_t kFar = INT32_MAX - 1;
  for (const auto& [x, y] : {std::pair(kFar, kFar), std::pair(-kFar, -kFar), std::pair(0, 5000),
                             std::pair(5000, 0), std::pair(0, kFar), std::pair(kFar, 0)}) {
    EXPECT_EQ(Draw({Window(x, y)}), black);
  }
}

TEST_F(DrawWindowsTest, ATextStaysUntilAnotherOneAndAnEmptyOneHidesTheLabel) {
  const std::vector<WindowState> windows{Window(100, 100)};
  SetLabelText(labels, 0, "Stays");
  const GuardedPicture shown = Draw(windows);
  EXPECT_EQ(Draw(windows), shown);
  SetLabelText(labels, 0, "Stays");
  EXPECT_EQ(Draw(windows), shown);
  SetLabelText(labels, 0, "");
  EXPECT_EQ(LabelArea(windows), Area{});
  SetLabelText(labels, 0, "Stays");
  EXPECT_EQ(Draw(windows), shown);
  EXPECT_EQ(Rendered(0), 1U) << "the overlay was kept meanwhile";
  SetLabelText(labels, 0, "Goes");
  EXPECT_NE(Draw(windows), shown);
  ParseLabelColour(labels, 0, "#0F0");
  Draw(windows);
  Draw(windows);
  EXPECT_EQ(Rendered(0), 3U);
}

TEST_F(DrawWindowsTest, DamagedTextShowsReplacementCharacters) {
  const std::vector<WindowState> windows{Window(100, 100)};
  SetLabelText(labels, 0,
               "a\xEF\xBF\xBD"
               "b");
  const GuardedPicture replaced = Draw(windows);
  EXPECT_EQ(labels.Find(0)->Renderer().Painter().CountMissingGlyphs(), 0);
  for (const std::string& damaged :
       {std::string("a\xED\xA0\x80"
                    "b"),  // a surrogate
        std::string("a\xF4\x90\x80\x80"
                    "b"),                                       // beyond Unicode
        std::string("a\0b", 3), std::string("a\xC0\0b", 4)}) {  // a byte to be dropped before
    SetLabelText(labels, 0, damaged);
    EXPECT_EQ(Draw(windows), replaced);
  }
}

}  // namespace
