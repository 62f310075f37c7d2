#include <algorithm>
#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "host/channel/video/frame_converter.h"
#include "host/units.h"

namespace host {
namespace {

std::vector<Time> Steady(Ratio rate, int count) {
  std::vector<Time> times;
  for (int i = 0; i < count; ++i) {
    times.push_back(FrameStart(i, rate));
  }
  return times;
}

TEST(RateLimiter, PassesASourceOfTheSameOrALowerRateWholeInSpiteOfJitter) {
  for (const Ratio source : {Ratio{25, 1}, Ratio{24, 1}, Ratio{2, 1}}) {
    RateLimiter limiter({25, 1});
    const std::vector<Time> times = Steady(source, 500);
    constexpr std::array<Time, 5> kJitter = {0, 30'000, -40'000, 45'000, -20'000};
    for (std::size_t i = 0; i < times.size(); ++i) {
      EXPECT_TRUE(limiter.Pass(times[i] + kJitter[i % 5])) << source.num;
    }
  }
}

TEST(RateLimiter, PassesForEveryFrameOfTheCanvasTheNearestFrame) {
  for (const Ratio source : {Ratio{30000, 1001}, Ratio{30, 1}, Ratio{60000, 1001}, Ratio{50, 1}}) {
    RateLimiter limiter({25, 1});
    std::vector<Time> all = Steady(source, 1000);
    std::vector<Time> passed;
    for (Time& time : all) {
      time = time / 10'000 * 10'000 - kSecond;  // whole milliseconds, as containers round them
      if (limiter.Pass(time)) {
        passed.push_back(time);
      }
    }
    EXPECT_NEAR(static_cast<double>(passed.size()), 1000 * 25 / source.value(), 2) << source.num;
    const auto distance = [](const std::vector<Time>& times, Time frame) {
      Time least = kSecond;
      for (const Time time : times) {
        least = std::min(least, std::abs(time - frame));
      }
      return least;
    };
    for (int frame = -20; frame < 350; ++frame) {
      // Where two are as near as each other but for the rounding, either may pass.
      ASSERT_NEAR(distance(passed, frame * 400'000), distance(all, frame * 400'000), 10'000)
          << source.num << ", frame " << frame;
    }
  }
}

TEST(RateLimiter, SavesAtMostOneFrameUpDuringAGap) {
  RateLimiter limiter({25, 1});
  ASSERT_TRUE(limiter.Pass(0));
  ASSERT_TRUE(limiter.Pass(60 * kSecond));
  int passed = 0;
  for (int i = 1; i <= 100; ++i) {
    passed += limiter.Pass(60 * kSecond + i * 100'000) ? 1 : 0;  // 100 frames per second
  }
  EXPECT_LE(passed, 27);
}

TEST(FitFrame, KeepsTheShapeCentresItAndStaysEven) {
  // Source, shape of its pixels, window, shape of the canvas's pixels.
  EXPECT_EQ(FitFrame(720, 576, {16, 15}, 640, 360, {1, 1}), (FitRect{80, 0, 480, 360}));
  EXPECT_EQ(FitFrame(720, 576, {64, 45}, 640, 360, {1, 1}), (FitRect{0, 0, 640, 360}));
  EXPECT_EQ(FitFrame(1080, 1920, {1, 1}, 640, 360, {1, 1}), (FitRect{218, 0, 202, 360}));
  EXPECT_EQ(FitFrame(2048, 858, {1, 1}, 640, 360, {1, 1}), (FitRect{0, 46, 640, 268}));
  // On a canvas of wide pixels the same frame takes fewer of them.
  EXPECT_EQ(FitFrame(720, 576, {16, 15}, 720, 576, {16, 15}), (FitRect{0, 0, 720, 576}));
  EXPECT_EQ(FitFrame(1024, 576, {1, 1}, 720, 576, {64, 45}), (FitRect{0, 0, 720, 576}));
  // No bars of a pixel or two, and the frame never vanishes.
  EXPECT_EQ(FitFrame(854, 480, {1, 1}, 640, 360, {1, 1}), (FitRect{0, 0, 640, 360}));
  const FitRect line = FitFrame(8192, 2, {1, 1}, 64, 36, {1, 1});
  EXPECT_TRUE(line.width == 64 && line.height == 2 && line.y % 2 == 0);
}

TEST(Units, FramesOfAnyRateDoNotDriftOverTenYears) {
  EXPECT_EQ(FrameDuration({25, 1}), 400'000);
  EXPECT_EQ(FrameDuration({30000, 1001}), 333'667);
  constexpr std::int64_t kYears = 10 * 365 * 24 * std::int64_t{3600};  // seconds
  for (const Ratio rate : {Ratio{25, 1}, Ratio{50, 1}, Ratio{60, 1}, Ratio{24000, 1001},
                           Ratio{30000, 1001}, Ratio{60000, 1001}, Ratio{120000, 1001}}) {
    const std::int64_t frame = kYears / rate.den * rate.num;
    const Time start = FrameStart(frame, rate);
    EXPECT_EQ(start, kYears / rate.den * rate.den * kSecond) << rate.num;
    for (const std::int64_t near : {frame - 1, frame, frame + 1, -frame}) {
      const Time begins = FrameStart(near, rate);
      EXPECT_EQ(FrameAt(begins, rate), near) << rate.num;
      EXPECT_EQ(FrameAt(begins - 1, rate), near - 1) << rate.num;
      EXPECT_EQ(NearestFrame(begins + 1000, rate), near) << rate.num;
    }
    RateLimiter limiter(rate);
    int passed = 0;
    for (int i = 0; i < 100; ++i) {
      passed += limiter.Pass(FrameStart(2 * frame + i, {2 * rate.num, rate.den})) ? 1 : 0;
    }
    EXPECT_NEAR(passed, 50, 3) << rate.num;
  }
}

}  // namespace
}  // namespace host
