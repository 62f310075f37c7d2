#include "render/meter_drawer.h"

#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "render/kernels/drawing_kernels.h"
#include "tests/render/guarded_picture.h"
#include "tests/support/allocation_count.h"

namespace {

using support::GuardedPicture;

struct Meter {
  std::int32_t x, y, width, height;
  int channels;
};

struct Reading {
  std::vector<float> levels;
  std::vector<float> peaks;
  bool alarm = false;
};

Reading RandomReading(std::mt19937& random, int channels) {
  std::uniform_real_distribution<float> decibels(-60.0f, 6.0f);
  Reading reading;
  for (int i = 0; i < channels; ++i) {
    reading.levels.push_back(std::pow(10.0f, decibels(random) / 20.0f));
    reading.peaks.push_back(std::pow(10.0f, decibels(random) / 20.0f));
  }
  reading.alarm = random() % 2 == 0;
  return reading;
}

void DrawByOperations(const Yv12Picture& canvas, const Meter& meter, const Reading& reading) {
  const MeterPanel panel(canvas, meter.x, meter.y, meter.width, meter.height, meter.channels);
  DrawMeterPanel(panel);
  DrawMeterBars(panel, reading.levels, reading.peaks);
  if (reading.alarm) {
    DrawAlarmIndicator(panel);
  }
}

class MeterDrawerVersions : public testing::TestWithParam<const kernels::DrawingKernels*> {
 protected:
  MeterDrawerVersions() { kernels::UseKernels(*GetParam()); }
  ~MeterDrawerVersions() override { kernels::UseKernels(*kernels::AllKernels().back()); }
};

TEST_P(MeterDrawerVersions, DrawsTheBytesOfTheOperationsFrameAfterFrame) {
  const std::vector<Meter> meters{
      {0, 0, 64, 200, 2},
      {10, 8, 41, 180, 2},
      {6, 2, 40, 111, 1},
      {12, 20, 19, 90, 8},
      {12, 20, 41, 181, 10},
      {30, 30, 5, 40, 2},
      {0, 0, 1, 1, 1},
      {0, 10, 2, 3, 1},
      {2, 10, 9, 8, 2},
      {40, 40, 60, 160, 0},
      {50, 4, 89, 190, 3},
      {100, 20, 60, 180, 5},
      // at odd places, over the edges, outside, and with a foot on the last row
      {7, 8, 40, 100, 2},
      {8, 7, 40, 100, 2},
      {-20, -30, 64, 200, 2},
      {150, 120, 40, 100, 2},
      {-64, 0, 64, 80, 2},
      {0, 190, 30, 10, 1},
      {130, 0, 30, 200, 2},
      {128, 100, 33, 101, 2}};
  std::mt19937 random(11);
  MeterDrawer drawer;
  for (int frame = 0; frame < 6; ++frame) {
    for (const Meter& meter : meters) {
      GuardedPicture expected(160, 200);
      expected.Scatter(static_cast<std::uint32_t>(frame));
      GuardedPicture actual = expected;
      const Reading reading = RandomReading(random, meter.channels);
      DrawByOperations(expected.view(), meter, reading);
      drawer.Draw(actual.view(), meter.x, meter.y, meter.width, meter.height, reading.levels,
                  reading.peaks, reading.alarm);
      ASSERT_EQ(actual, expected) << meter.width << "x" << meter.height << " at " << meter.x << ","
                                  << meter.y << ", " << meter.channels << " channels";
    }
  }
}

TEST_P(MeterDrawerVersions, DrawsTheBytesOfTheOperationsOnOddCanvases) {
  std::mt19937 random(12);
  MeterDrawer drawer;
  for (int round = 0; round < 200; ++round) {
    const auto width = static_cast<std::int32_t>(20 + random() % 60);
    const auto height = static_cast<std::int32_t>(20 + random() % 60);
    const auto draw = [&](std::uint32_t range) {
      return static_cast<std::int32_t>(random() % range);
    };
    const Meter meter{draw(40) / 2 * 2 - 8, draw(40) / 2 * 2 - 8, 1 + draw(40), 1 + draw(70),
                      draw(5)};
    GuardedPicture expected(width, height);
    expected.Scatter(static_cast<std::uint32_t>(round));
    GuardedPicture actual = expected;
    const Reading reading = RandomReading(random, meter.channels);
    DrawByOperations(expected.view(), meter, reading);
    drawer.Draw(actual.view(), meter.x, meter.y, meter.width, meter.height, reading.levels,
                reading.peaks, reading.alarm);
    ASSERT_EQ(actual, expected) << meter.width << "x" << meter.height << " at " << meter.x << ","
                                << meter.y << ", canvas " << width << "x" << height;
    ASSERT_TRUE(actual.GuardsIntact());
  }
}

INSTANTIATE_TEST_SUITE_P(All, MeterDrawerVersions,
                         testing::ValuesIn(kernels::AllKernels().begin(),
                                           kernels::AllKernels().end()),
                         [](const auto& version) { return std::string(version.param->name); });

TEST(MeterDrawer, ShowsEveryCountOfLitSegments) {
  // The row above the last lit one mixes lit and unlit chroma.
  MeterDrawer drawer;
  for (std::int32_t height : {30, 117, 160}) {
    const std::int32_t length = MeterPanel({}, 0, 0, 20, height, 1).barLength;
    for (std::int32_t lit = 0; lit <= length; ++lit) {
      const float level = std::pow(10.0f, (50.0f * lit / length - 50.0f) / 20.0f);
      GuardedPicture expected(32, 160);
      expected.Scatter(1);
      GuardedPicture actual = expected;
      const Reading reading{{level}, {level}, false};
      DrawByOperations(expected.view(), {4, 0, 20, height, 1}, reading);
      drawer.Draw(actual.view(), 4, 0, 20, height, reading.levels, reading.peaks, false);
      ASSERT_EQ(actual, expected) << "height " << height << ", " << lit << " rows lit";
    }
  }
}

TEST(MeterDrawer, DrawsNothingWithoutAPixelOfWidthOrHeight) {
  GuardedPicture canvas(32, 32);
  canvas.Scatter(1);
  const GuardedPicture before = canvas;
  MeterDrawer drawer;
  const std::vector<float> levels{1.0f};
  drawer.Draw(canvas.view(), 4, 4, 0, 20, levels, levels, true);
  drawer.Draw(canvas.view(), 4, 4, 20, 0, levels, levels, true);
  drawer.Draw(canvas.view(), 4, 4, -1, -1, levels, levels, true);
  EXPECT_EQ(canvas, before);
}

TEST(MeterDrawer, AllocatesNothingWhileTheWindowsStayWhereTheyAre) {
  MeterDrawer drawer;
  GuardedPicture canvas(640, 480);
  std::mt19937 random(13);
  const std::vector<Reading> readings{RandomReading(random, 2), RandomReading(random, 2),
                                      RandomReading(random, 2)};
  const auto frame = [&](const Reading& reading) {
    for (std::int32_t i = 0; i < 9; ++i) {
      drawer.Draw(canvas.view(), i % 3 * 200, i / 3 * 150, 40, i % 2 == 0 ? 140 : 144,
                  reading.levels, reading.peaks, reading.alarm);
    }
  };
  frame(readings[0]);
  const support::AllocationCount before;
  for (const Reading& reading : readings) {
    frame(reading);
  }
  EXPECT_EQ(before.Since(), 0u);
}

TEST(TableShelf, DropsWhatHasNotBeenAskedForForLong) {
  struct Sum {
    Sum(std::int32_t a, std::int32_t b) : value(a + b) {}
    std::int32_t value;
  };
  TableShelf<Sum, 2> shelf;
  EXPECT_EQ(shelf.Get({1, 2}).value, 3);
  EXPECT_EQ(shelf.Get({2, 2}).value, 4);
  for (std::uint64_t i = 0; i <= TableShelf<Sum, 2>::kKeep; ++i) {
    shelf.Get({2, 2});
  }
  EXPECT_EQ(shelf.size(), 2u);
  shelf.Get({5, 5});
  EXPECT_EQ(shelf.size(), 2u);
  EXPECT_EQ(shelf.Get({2, 2}).value, 4);
  EXPECT_EQ(shelf.Get({1, 2}).value, 3);
}

}  // namespace
