#include "host/channel/decode_policy.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

namespace host {
namespace {

// A channel whose steps cost a share of the machine, observed once a second.
class DecodePolicyTest : public testing::Test {
 protected:
  // The steps after each second, as digits: "0012".
  std::string Run(DecodePolicy& policy, int seconds, double costOfAll, int pressure = 0) {
    constexpr double kCosts[] = {1, 0.95, 0.86, 0.6, 0.12};
    std::string steps;
    for (int i = 0; i < seconds; ++i) {
      now_ += kSecond;
      load_.busy = std::min(1.0, costOfAll * kCosts[static_cast<int>(policy.step())]);
      load_.pressure = pressure;
      policy.Observe(now_, load_);
      steps += static_cast<char>('0' + static_cast<int>(policy.step()));
    }
    return steps;
  }

  Time now_ = 0;
  DecodePolicy::Load load_{0, 1, 0, false, true};
};

TEST_F(DecodePolicyTest, GoesUpUntilItKeepsUpAndComesDownWithoutSwinging) {
  DecodePolicy policy(config::Decode::kAuto);
  policy.Opened({}, now_);
  EXPECT_EQ(Run(policy, 10, 0.8), "0000000000");
  EXPECT_EQ(Run(policy, 8, 1.5), "01122333");  // two seconds each; 0.9 of the time at the third
  EXPECT_EQ(Run(policy, 60, 1.5), std::string(60, '3'));
  // The load is gone: a step every ten seconds.
  EXPECT_EQ(Run(policy, 40, 0.3), std::string(9, '3') + std::string(10, '2') +
                                      std::string(10, '1') + std::string(11, '0'));
  // At the limit between two steps each try lasts twice as long as the one before.
  std::string steps = Run(policy, 300, 1.06);
  EXPECT_LT(std::count(steps.begin(), steps.end(), '0'), 30) << steps;
}

TEST_F(DecodePolicyTest, TakesWhatIsAskedForMostWithinTheBoundsOfItsSetting) {
  struct Case {
    config::Decode setting;
    DecodePolicy::Source source;
    bool isImportant;
    bool isShown;
    int pressure;
    const char* step;
    const char* reason;
  };
  const Case cases[] = {
      {config::Decode::kFull, {true, true}, false, false, 8, "full", ""},
      {config::Decode::kAuto, {}, false, true, 0, "full", ""},
      {config::Decode::kAuto,
       {true, false},
       false,
       true,
       0,
       "unreferenced_unfiltered",
       "the window is at most half as large as the source"},
      {config::Decode::kAuto,
       {true, true},
       false,
       true,
       0,
       "referenced_only",
       "the source has twice the rate of the canvas"},
      {config::Decode::kAuto, {}, false, false, 0, "keyframes_only", "its window is not shown"},
      {config::Decode::kAuto,
       {},
       false,
       true,
       2,
       "unfiltered",
       "the wall is late or its outputs drop frames"},
      {config::Decode::kAuto, {}, true, true, 4, "full", ""},
      {config::Decode::kAuto,
       {},
       true,
       true,
       7,
       "referenced_only",
       "the wall is late or its outputs drop frames"},
      {config::Decode::kEconomy, {}, true, true, 0, "referenced_only", "by the wall file"},
      {config::Decode::kKeyframes, {}, true, true, 0, "keyframes_only", "by the wall file"}};
  for (const Case& each : cases) {
    DecodePolicy policy(each.setting);
    policy.Opened(each.source, now_);
    load_.isImportant = each.isImportant;
    load_.isShown = each.isShown;
    Run(policy, 1, 0.1, each.pressure);
    EXPECT_STREQ(NameOf(policy.step()), each.step);
    EXPECT_EQ(policy.reason(), each.reason);
  }
}

TEST_F(DecodePolicyTest, LeavesAStepThatGivesTooLittle) {
  DecodePolicy fast(config::Decode::kAuto);
  fast.Opened({false, true}, now_);
  EXPECT_EQ(Run(fast, 2, 0.5), "33");
  load_.frames = 0.5;  // of a source in which most frames are unreferenced
  EXPECT_EQ(Run(fast, 2, 0.5), "00");

  DecodePolicy keyframes(config::Decode::kKeyframes);
  keyframes.Opened({}, now_);
  load_.frames = 0;
  EXPECT_EQ(Run(keyframes, 14, 0.5), "44444444444333");
  keyframes.Opened({}, now_);
  EXPECT_EQ(Run(keyframes, 1, 0.5), "4") << "another source may have some";
}

TEST(WallPressure, RisesWithEachLossAndFallsAfterQuietTimes) {
  WallPressure pressure;
  std::string levels;
  for (Time second = 1; second <= 40; ++second) {
    pressure.Observe(second * kSecond, second < 13 ? static_cast<std::uint64_t>(second) : 12);
    levels += static_cast<char>('0' + pressure.level());
  }
  EXPECT_EQ(levels,
            "123456788888"
            "888888888"
            "7777777777"
            "666666666");
}

}  // namespace
}  // namespace host
