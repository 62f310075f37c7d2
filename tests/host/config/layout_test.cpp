#include "host/config/layout.h"

#include <gtest/gtest.h>

#include "host/config/value_text.h"

namespace host::config {
namespace {

TEST(Layout, KeepsWindowsAndLabelsApartInsideTheCanvasForEveryCount) {
  for (const auto& [width, height] :
       {std::pair{1920, 1080}, {3840, 2160}, {720, 576}, {1080, 1920}}) {
    Canvas canvas;
    canvas.width = width;
    canvas.height = height;
    canvas.aspect = Reduced(Ratio{width, height});
    for (std::size_t count = 1; count <= kMaxChannels; ++count) {
      const auto windows = LayOutWindows(canvas, {}, count, true);
      ASSERT_TRUE(windows) << width << " " << count;
      ASSERT_EQ(windows->size(), count);
      for (std::size_t i = 0; i < count; ++i) {
        const Window& window = (*windows)[i];
        EXPECT_TRUE(window.x % 2 == 0 && window.y % 2 == 0 && window.width % 2 == 0 &&
                    window.height % 2 == 0);
        EXPECT_GE(window.x, 0);
        EXPECT_GE(window.y, 0);
        EXPECT_LT(window.x + window.width, width);
        EXPECT_LE(window.y + window.height + LabelRoom(height), height);
        for (std::size_t j = 0; j < i; ++j) {
          const Window& other = (*windows)[j];
          EXPECT_TRUE(other.x + other.width <= window.x || window.x + window.width <= other.x ||
                      other.y + other.height + LabelRoom(height) <= window.y)
              << i << " " << j;
        }
      }
    }
  }
}

TEST(Layout, FollowsItsRules) {
  Canvas canvas;
  LayoutRules rules;
  rules.gap = rules.margin = rules.labelRoom = 0;
  EXPECT_EQ(LayOutWindows(canvas, rules, 4, true)->at(3).width, 958) << "the largest";
  rules.columns = 3;
  rules.windowAspect = Ratio{4, 3};
  const auto windows = LayOutWindows(canvas, rules, 5, false);
  ASSERT_TRUE(windows);
  EXPECT_EQ((*windows)[0].y, (*windows)[2].y);
  EXPECT_LT((*windows)[2].y, (*windows)[3].y);
  EXPECT_NEAR((*windows)[0].width * 3.0 / 4.0, (*windows)[0].height, 2);

  canvas.width = 64;
  canvas.height = 36;
  EXPECT_FALSE(LayOutWindows(canvas, {}, 9, true));
}

TEST(ValueText, ReadsRatesDurationsBitRatesAndColours) {
  EXPECT_EQ(ParseFrameRate("60000/1001"), (Ratio{60000, 1001}));
  EXPECT_EQ(ParseFrameRate("23.976"), (Ratio{24000, 1001}));
  EXPECT_EQ(ParseFrameRate("12.5"), (Ratio{25, 2}));
  EXPECT_EQ(ParseDuration("1.5"), 15'000'000);
  EXPECT_EQ(ParseBitRate("2.5M"), 2'500'000);
  EXPECT_EQ(ParseRgb("#F80"), (Rgb{255, 136, 0}));
  EXPECT_TRUE(IsLabelColour("#8F80"));
  EXPECT_FALSE(ParseFrameRate("25/0") || ParseFrameRate("-25") || ParseFrameRate("25 fps") ||
               ParseAspect("16:0") || ParseDuration("5 minutes") || ParseDuration("1e400") ||
               ParseBitRate("6m") || ParseRgb("#8F80") || IsLabelColour("#12345") ||
               IsLabelColour("FF0000") || IsLabelColour("#GG0000"));
}

}  // namespace
}  // namespace host::config
