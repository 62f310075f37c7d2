#include "render/meters.h"

#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "render/meter_colours.h"
#include "tests/render/guarded_picture.h"

namespace {

using support::GuardedPicture;

TEST(MeterPanel, GivesUpMarginAndGapsForBarsOfTwoPixels) {
  GuardedPicture canvas(64, 64);
  const MeterPanel roomy(canvas.view(), 10, 20, 64, 360, 2);
  EXPECT_EQ(roomy.margin, 2);
  EXPECT_EQ(roomy.gap, 3);
  EXPECT_EQ(roomy.barWidth, 28);
  EXPECT_EQ(roomy.barLength, 320);
  EXPECT_EQ(roomy.bandBottom, 20 + 35);

  const MeterPanel crowded(canvas.view(), 0, 0, 19, 100, 8);
  EXPECT_EQ(crowded.margin, 1);
  EXPECT_EQ(crowded.gap, 0);
  EXPECT_EQ(crowded.barWidth, 2);

  const MeterPanel hopeless(canvas.view(), 0, 0, 3, 5, 9);
  EXPECT_EQ(hopeless.barWidth, 0);
  EXPECT_EQ(hopeless.barLength, 1);
  EXPECT_EQ(MeterPanel(canvas.view(), 0, 0, 64, 360, 0).barWidth, -1);
}

TEST(MeterRows, ShowsFiftyDecibels) {
  EXPECT_EQ(MeterRows(1.0f, 320), 320);
  EXPECT_EQ(MeterRows(7.5f, 320), 320);
  EXPECT_EQ(MeterRows(std::pow(10.0f, -25.0f / 20.0f), 320), 160);
  EXPECT_EQ(MeterRows(0.002f, 320), 0);
  EXPECT_EQ(MeterRows(0.0f, 320), 0);
  EXPECT_EQ(MeterRows(-1.0f, 320), 0);
  EXPECT_EQ(MeterRows(std::numeric_limits<float>::quiet_NaN(), 320), 0);
  EXPECT_EQ(LitSegments(MeterRows(1.0f, 320), 320), 24);
  EXPECT_EQ(LitSegments(MeterRows(0.1f, 320), 320), 14);
}

// A meter with two bars of 8 x 50 pixels and an alarm, on a canvas of one colour.
class RecordedMeter : public testing::Test {
 protected:
  RecordedMeter() {
    canvas.Paint(100, 90, 160);
    const MeterPanel panel(canvas.view(), 8, 12, 24, 60, 2);
    DrawMeterPanel(panel);
    DrawMeterBars(panel, std::array{0.5f, 0.01f}, std::array{0.8f, 0.02f});
    DrawAlarmIndicator(panel);
  }

  GuardedPicture canvas{64, 96};
};

// The figures come from a second implementation of the arithmetic. Other math libraries may round a
// sample differently by one.
TEST_F(RecordedMeter, HasTheRecordedColoursAlongABar) {
  constexpr std::array kLuma{46,  90,  47,  33,  47,  38,  115, 52,  115, 56, 105, 59, 114,
                             113, 114, 114, 109, 115, 91,  118, 71,  120, 46, 121, 33, 108,
                             40,  110, 56,  110, 68,  107, 75,  102, 81,  96, 81,  89, 83,
                             85,  83,  76,  83,  63,  84,  48,  89,  31,  93, 24};
  constexpr std::array kV{164, 135, 136, 172, 176, 188, 142, 142, 142, 139, 137, 134, 108,
                          107, 94,  82,  72,  63,  55,  51,  54,  63,  74,  92,  101};
  constexpr std::array kU{94,  124, 124, 93, 86, 83, 41, 36, 38, 54, 69, 90, 110,
                          109, 102, 93,  82, 76, 71, 66, 69, 75, 86, 97, 107};
  for (int i = 0; i < 50; ++i) {
    EXPECT_NEAR(canvas.Y(10, 20 + i), kLuma[i], 1) << "row " << i;
    EXPECT_NEAR(canvas.V(12, 20 + i), kV[i / 2], 1) << "row " << i;
    EXPECT_NEAR(canvas.U(12, 20 + i), kU[i / 2], 1) << "row " << i;
  }
}

TEST_F(RecordedMeter, HasTheRecordedPatternAcrossAPanel) {
  constexpr std::array kLuma{192, 36, 33, 25, 29, 27, 29, 29, 29, 39, 51, 52,
                             54,  41, 29, 29, 29, 31, 29, 25, 35, 39, 37, 192};
  constexpr std::array kBand{188, 16, 17, 17, 17, 18, 76, 76, 76, 76, 76, 76,
                             76,  76, 76, 76, 76, 76, 18, 18, 17, 17, 17, 188};
  for (int i = 0; i < 24; ++i) {
    EXPECT_EQ(canvas.Y(8 + i, 44), kLuma[i]) << "column " << i;
    EXPECT_EQ(canvas.Y(8 + i, 15), kBand[i]) << "column " << i;
  }
  EXPECT_EQ(canvas.V(16, 15), 255);
  EXPECT_EQ(canvas.U(16, 15), 86);
  EXPECT_TRUE(canvas.GuardsIntact());
}

TEST(DrawMeterPanel, BlendsChromaOnceForEachPixelThatASampleCovers) {
  GuardedPicture canvas(64, 64);
  canvas.Paint(100, 0, 255);
  const MeterPanel panel(canvas.view(), 2, 2, 9, 31, 0);
  DrawMeterPanel(panel);
  const VignetteShape shape(9, 31);
  std::uint8_t four = 0;
  for (const auto& [c, r] : {std::pair{4, 6}, {5, 6}, {4, 7}, {5, 7}}) {
    four = Blend255(four, 128, shape.LumaOpacity(c, r) / 4);
  }
  EXPECT_EQ(canvas.V(2 + 4, 2 + 6), four);
  // The last column is alone in its sample, as is the last row.
  EXPECT_EQ(canvas.V(2 + 8, 2 + 30), Blend255(0, 128, shape.LumaOpacity(8, 30) / 4));
  EXPECT_EQ(canvas.U(2 + 10, 2), 255);
}

TEST(DrawMeterBars, MarksThePeakOnlyWhileTheBarIsLit) {
  for (const float level : {0.0f, 0.4f}) {
    GuardedPicture with(64, 200);
    with.Paint(100, 128, 128);
    GuardedPicture without = with;
    const MeterPanel panel(with.view(), 0, 0, 20, 190, 1);
    DrawMeterBars(panel, std::array{level}, std::array{0.9f});
    DrawMeterBar(MeterPanel(without.view(), 0, 0, 20, 190, 1), 2, 187, panel.barWidth,
                 MeterRows(level, panel.barLength), panel.barLength);
    EXPECT_EQ(with == without, level == 0.0f);
    // The marker hangs three rows down from the peak.
    const int peakRow = 187 - MeterRows(0.9f, panel.barLength);
    EXPECT_EQ(with.Y(10, peakRow - 1), without.Y(10, peakRow - 1));
    EXPECT_EQ(with.Y(10, peakRow + 3), without.Y(10, peakRow + 3));
    for (int i = 0; i < 3 && level > 0.0f; ++i) {
      EXPECT_EQ(with.Y(10, peakRow + i), Blend255(without.Y(10, peakRow + i), 127, 160));
    }
  }
}

TEST(DrawAlarmIndicator, CentresTheBoxInTheTopBand) {
  GuardedPicture canvas(128, 512);
  canvas.Paint(16, 128, 128);
  DrawAlarmIndicator(MeterPanel(canvas.view(), 20, 40, 64, 360, 2));
  for (int y = 0; y < 512; ++y) {
    for (int x = 0; x < 128; ++x) {
      const bool inBox = x >= 36 && x < 68 && y >= 50 && y < 67;
      ASSERT_EQ(canvas.Y(x, y), inBox ? 76 : 16) << x << "," << y;
    }
  }
}

// A meter that hangs over the canvas's edge looks like the part of it that is inside, and nothing
// outside the picture is written.
TEST(Meters, AreCutOffAtTheEdgesOfTheCanvas) {
  constexpr int kShift = 16;  // a multiple of the dither's period
  const std::array levels{0.9f, 0.3f};
  GuardedPicture wide(96, 120);
  wide.Paint(100, 90, 160);
  GuardedPicture cut(96 - kShift, 120);
  cut.Paint(100, 90, 160);
  for (GuardedPicture* canvas : {&wide, &cut}) {
    const std::int32_t x = canvas == &wide ? 0 : -kShift;
    const MeterPanel panel(canvas->view(), x, 4, 40, 110, 2);
    DrawMeterPanel(panel);
    DrawMeterBars(panel, levels, levels);
    DrawAlarmIndicator(panel);
  }
  for (int y = 0; y < 120; ++y) {
    for (int column = 0; column < 96 - kShift; ++column) {
      ASSERT_EQ(cut.Y(column, y), wide.Y(column + kShift, y)) << column << "," << y;
      ASSERT_EQ(cut.V(column, y), wide.V(column + kShift, y)) << column << "," << y;
      ASSERT_EQ(cut.U(column, y), wide.U(column + kShift, y)) << column << "," << y;
    }
  }
  EXPECT_TRUE(cut.GuardsIntact());
}

TEST(Meters, TouchNothingFarOutsideTheCanvas) {
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
  GuardedPicture canvas(32, 32);
  canvas.Scatter(1);
  const GuardedPicture before = canvas;
  for (const std::int32_t far : {-1000, 1000, kMost, -kMost}) {
    for (const bool sideways : {false, true}) {
      const MeterPanel panel(canvas.view(), sideways ? far : 0, sideways ? 0 : far, 20, 40, 1);
      DrawMeterPanel(panel);
      DrawMeterBars(panel, std::array{1.0f}, std::array{0.0f});
      DrawAlarmIndicator(panel);
    }
  }
  EXPECT_EQ(canvas, before);
}

}  // namespace
