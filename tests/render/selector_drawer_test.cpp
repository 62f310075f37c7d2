#include "render/selector_drawer.h"

#include <limits>

#include <gtest/gtest.h>

#include "tests/render/guarded_picture.h"

namespace {

using support::GuardedPicture;

TEST(DrawSelectorBar, FillsTheBarWithOpaqueRed) {
  GuardedPicture canvas(32, 16);
  canvas.Paint(1, 2, 3);
  DrawSelectorBar(canvas.view().data, 32, 16, 4, 6, 20, 3);
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < 32; ++x) {
      const bool inBar = x >= 4 && x < 24 && y >= 6 && y < 9;
      // The bar's last row shares its chroma with the row below.
      const bool inChroma = x >= 4 && x < 24 && y >= 6 && y < 10;
      ASSERT_EQ(canvas.Y(x, y), inBar ? 76 : 1) << x << "," << y;
      ASSERT_EQ(canvas.V(x, y), inChroma ? 255 : 2) << x << "," << y;
      ASSERT_EQ(canvas.U(x, y), inChroma ? 86 : 3) << x << "," << y;
    }
  }
  EXPECT_TRUE(canvas.GuardsIntact());
}

TEST(DrawSelectorBar, KeepsOnePixelAwayFromTheRightAndBottomEdges) {
  GuardedPicture canvas(32, 16);
  EXPECT_NO_THROW(DrawSelectorBar(canvas.view().data, 32, 16, 0, 0, 31, 15));
  canvas.Scatter(1);
  const GuardedPicture before = canvas;
  constexpr int kMost = std::numeric_limits<int>::max();
  struct Bar {
    int x, y, w, h;
  };
  for (const Bar bar :
       {Bar{0, 0, 32, 2}, Bar{0, 14, 8, 2}, Bar{-1, 0, 4, 4}, Bar{0, -1, 4, 4}, Bar{0, 0, -1, 4},
        Bar{0, 0, 4, -1}, Bar{kMost, 0, kMost, 0}, Bar{0, kMost, 0, kMost}, Bar{32, 0, 0, 0}}) {
    EXPECT_THROW(DrawSelectorBar(canvas.view().data, 32, 16, bar.x, bar.y, bar.w, bar.h),
                 BadConfigException)
        << bar.x << "," << bar.y << " " << bar.w << "x" << bar.h;
  }
  EXPECT_EQ(canvas, before);
}

TEST(DrawSelectorBar, DrawsNothingForABarWithoutThickness) {
  GuardedPicture canvas(32, 16);
  canvas.Scatter(2);
  const GuardedPicture before = canvas;
  DrawSelectorBar(canvas.view().data, 32, 16, 5, 5, 10, 0);
  DrawSelectorBar(canvas.view().data, 32, 16, 5, 5, 0, 10);
  EXPECT_EQ(canvas, before);
}

TEST(BadConfigException, IsAFailureOfOursAndSaysWhatFailed) {
  try {
    throw BadConfigException();
  } catch (const TavrelException& failure) {
    EXPECT_STREQ(failure.what(), "Cannot draw selector: bad config");
  }
}

}  // namespace
