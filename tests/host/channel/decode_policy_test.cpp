#include "host/channel/decode_policy.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/adler32.h>
#include <libavutil/frame.h>
}

#include "host/channel/channel_life.h"
#include "host/channel/video/frame_converter.h"
#include "tests/host/clips.h"
#include "tests/support/temporary_folder.h"

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
  DecodePolicy::Load load_{0, 1, 0, false, true, false, false, {}};
};

TEST_F(DecodePolicyTest, GoesUpUntilItKeepsUpAndComesDownWithoutSwinging) {
  DecodePolicy policy(config::Decode::kAuto);
  policy.Opened({}, now_);
  EXPECT_EQ(Run(policy, 10, 0.8), "0000000000");
  load_.gains = true;  // its queue is still filling
  EXPECT_EQ(Run(policy, 4, 1.5), "0000");
  load_.gains = false;
  EXPECT_EQ(Run(policy, 8, 1.5), "01122333");  // two seconds each; busy for 0.9 at the third step
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
      {config::Decode::kFull, {true, 2}, false, false, 8, "full", ""},
      {config::Decode::kAuto, {}, false, true, 0, "full", ""},
      {config::Decode::kAuto,
       {true, 1},
       false,
       true,
       0,
       "unreferenced_unfiltered",
       "the window is at most half as large as the source"},
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
  DecodePolicy keyframes(config::Decode::kKeyframes);
  keyframes.Opened({}, now_);
  load_.frames = 0;
  EXPECT_EQ(Run(keyframes, 14, 0.5), "44444444444333");
  keyframes.Opened({}, now_);
  EXPECT_EQ(Run(keyframes, 1, 0.5), "4") << "another source may have some";
}

TEST_F(DecodePolicyTest, ALateChannelTakesAtOnceTheStepThatKeepsUp) {
  struct Case {
    double frames;  // that it decoded, of the canvas's rate
    double rate;    // of the source, likewise
    const char* step;
  };
  for (const Case& each :
       {Case{0.97, 1, "unreferenced_unfiltered"}, Case{0.7, 1, "referenced_only"},
        Case{0.7, 2, "keyframes_only"}, Case{0.45, 1, "keyframes_only"}}) {
    DecodePolicy policy(config::Decode::kAuto);
    policy.Opened({false, each.rate}, now_);
    load_ = {1, each.frames, 0, false, true, true, false, nullptr};
    EXPECT_TRUE(policy.Observe(now_ += kSecond / 2, load_) && policy.isOverloaded());
    EXPECT_STREQ(NameOf(policy.step()), each.step) << each.frames << " of " << each.rate;
  }

  // A selected one lets the others yield first.
  DecodePolicy selected(config::Decode::kAuto);
  selected.Opened({}, now_);
  WallPressure pressure;
  load_ = {1, 0.5, 0, true, true, true, false, nullptr};
  std::string levels;
  for (int i = 0; i < 14; ++i) {
    selected.Observe(now_ += kSecond / 2, load_);
    EXPECT_TRUE(selected.complains());
    pressure.Complain(now_);
    load_.pressure = pressure.level();
    levels += static_cast<char>('0' + pressure.level());
  }
  EXPECT_EQ(levels, "12344444455555");
  EXPECT_EQ(selected.step(), DecodeStep::kUnreferencedUnfiltered);
}

TEST_F(DecodePolicyTest, ComesDownWhenTheMachineHasRoomForIt) {
  std::uint64_t idle = 0;
  DecodeBudget budget({4, [&] { return idle; }});
  std::vector<DecodePolicy> channels(8, DecodePolicy(config::Decode::kAuto));
  for (DecodePolicy& each : channels) {
    each.Opened({}, now_);
    load_ = {1, 0.1, 0, false, true, true, false, nullptr};
    each.Observe(now_ + kSecond, load_);
    budget.NoteOverload(now_ + kSecond);
  }
  now_ += kSecond;
  // How many decode more than keyframes, after each second: full decoding takes half a processor.
  const auto run = [&](int seconds, double idleProcessors) {
    std::string counts;
    for (int i = 0; i < seconds; ++i) {
      now_ += kSecond;
      idle += static_cast<std::uint64_t>(idleProcessors * kSecond);
      for (DecodePolicy& each : channels) {
        load_ = {each.step() == DecodeStep::kKeyframesOnly ? 0.06 : 0.3,
                 1,
                 0,
                 false,
                 true,
                 false,
                 false,
                 {}};
        load_.admits = [&](double processors) {
          return budget.Admit(now_, processors, each.step(), false);
        };
        each.Observe(now_, load_);
      }
      counts +=
          static_cast<char>('0' + std::count_if(channels.begin(), channels.end(), [](auto& each) {
                              return each.step() != DecodeStep::kKeyframesOnly;
                            }));
    }
    return counts;
  };
  // One processor is idle, and 0.4 of the four stay idle: two find room, each for a quarter of one.
  EXPECT_EQ(run(12, 1), "000000000122");
  EXPECT_EQ(run(2, 1), "23") << "what was granted counts until it shows";
  // None is idle: one after the other tries, and none goes further before that.
  EXPECT_EQ(run(11, 0), "44444555556");
  budget.NoteOverload(now_);
  EXPECT_EQ(run(18, 0), "666666666777777777")
      << "after an overload later, and after a failure half as often";
}

TEST(DecodeBudget, GivesTurnsToTheImportantFirst) {
  DecodeBudget budget({1, [] { return std::uint64_t{0}; }});
  DecodeSeat others(std::shared_ptr<DecodeBudget>(&budget, [](DecodeBudget*) {}), false);
  DecodeSeat selected(std::shared_ptr<DecodeBudget>(&budget, [](DecodeBudget*) {}), true);
  std::string order;  // guarded by the turn
  std::vector<std::thread> threads;
  {
    const DecodeBudget::Turn turn = others.TakeTurn();
    const auto start = [&](DecodeSeat& seat, char name) {
      threads.emplace_back([&order, &seat, name] {
        const DecodeBudget::Turn mine = seat.TakeTurn();
        order += name;
      });
      while (!seat.waits()) {
        std::this_thread::yield();
      }
    };
    start(others, 'o');
    start(selected, 's');
    while (budget.waiting() < 2) {
      std::this_thread::yield();
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(order, "so");
  EXPECT_FALSE(others.waits() || selected.waits());
}

TEST(ChannelLife, IsNotHeldWhileOnlyTheMachineIsSlow) {
  ChannelLife life(5 * kSecond, 0);
  life.Shown(kSecond, kSecond / 25);
  for (Time now = kSecond; now < 4 * kSecond; now += kSecond / 5) {
    life.CameLate(now);
    EXPECT_FALSE(life.Tick(now + kSecond / 10));
  }
  // Keyframes only, while frames that were decoded before still arrive.
  life.Expect(kKeyframeDuration);
  life.Shown(4 * kSecond, kSecond / 25);
  EXPECT_FALSE(life.Tick(12 * kSecond));
  EXPECT_TRUE(life.Tick(17 * kSecond));
  EXPECT_EQ(life.status().state, ChannelState::kLost);
  life.CameLate(17 * kSecond);
  EXPECT_EQ(life.status().state, ChannelState::kLost)
      << "a frame that is not shown makes none live";
}

// Each frame's luma, by its number.
using Frames = std::map<Time, AVAdler>;

// change(n, reader): before the n-th item is read.
template <typename Change>
Frames ReadFrames(const std::filesystem::path& clip, Change change) {
  MediaReader reader(Source(clip));
  reader.Open();
  Frames frames;
  int item = 0;
  change(item, reader);
  ReadEach(reader, [&](MediaItem read) {
    if (const auto* const frame = std::get_if<DecodedFrame>(&read)) {
      AVAdler sum = 1;
      for (int row = 0; row < frame->frame->height; ++row) {
        sum = av_adler32_update(sum, frame->frame->data[0] + row * frame->frame->linesize[0],
                                static_cast<std::size_t>(frame->frame->width));
      }
      frames[NearestFrame(frame->start, {25, 1})] = sum;
    }
    change(++item, reader);
  });
  return frames;
}

TEST(DecodeStep, LeavesOutWholeFramesAndComesBackAtAKeyframe) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.audio.clear();
  recipe.length = 4 * kSecond;
  recipe.videoOptions = {
      {"g", "25"}, {"bf", "2"}, {"b_strategy", "0"}, {"x264-params", "open-gop=1:scenecut=0"}};
  for (const char* const name : {"clip.mkv", "clip.ts"}) {
    const std::filesystem::path clip = Write(recipe, folder / name);
    const Frames all = ReadFrames(clip, [](int, MediaReader&) {});
    ASSERT_EQ(all.size(), 100U);
    const auto expectSame = [&](const Frames& some) {
      for (const auto& [number, sum] : some) {
        EXPECT_EQ(sum, all.at(number)) << name << ", frame " << number;
      }
    };

    const Frames referenced = ReadFrames(clip, [](int item, MediaReader& reader) {
      reader.SetStep(item < 40 ? DecodeStep::kReferencedOnly : DecodeStep::kKeyframesOnly);
    });
    EXPECT_GT(referenced.size(), 30U) << name;
    EXPECT_LT(referenced.size(), 60U) << name;
    // Referenced frames are not deblocked either.
    EXPECT_EQ(referenced.at(75), all.at(75)) << name << ": a keyframe";

    // Back from keyframes in the middle of a GOP: no frame that refers to a dropped one is shown.
    const Frames keyframes = ReadFrames(clip, [](int item, MediaReader& reader) {
      reader.SetStep(item < 2 ? DecodeStep::kKeyframesOnly : DecodeStep::kFull);
    });
    expectSame(keyframes);
    EXPECT_TRUE(keyframes.contains(0) && keyframes.contains(25)) << name;
    EXPECT_FALSE(keyframes.contains(10)) << name;
    EXPECT_GE(keyframes.size(), 45U) << name;
  }
}

TEST(FrameDropper, DropsWhatTheCanvasWouldNotShow) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.audio.clear();
  recipe.pictures = "testsrc2=size=160x90:rate=50,format=yuv420p";
  recipe.length = 4 * kSecond;
  recipe.videoOptions = {
      {"g", "100"}, {"bf", "2"}, {"b_strategy", "0"}, {"x264-params", "b-pyramid=none:scenecut=0"}};
  const std::filesystem::path clip = Write(recipe, folder / "clip.ts");
  // Frames of the source, and the starts of those that a canvas of 25 frames per second shows.
  const auto read = [&](std::optional<Ratio> canvasRate) {
    MediaSettings settings = Source(clip);
    settings.canvasRate = canvasRate;
    MediaReader reader(settings);
    reader.Open();
    RateLimiter limiter({25, 1});
    std::pair<int, std::vector<Time>> result;
    ReadEach(reader, [&](MediaItem item) {
      if (const auto* const frame = std::get_if<DecodedFrame>(&item)) {
        ++result.first;
        if (limiter.Pass(frame->start)) {
          result.second.push_back(frame->start);
        }
      }
    });
    return result;
  };
  const auto all = read({});
  const auto thinned = read(Ratio{25, 1});
  EXPECT_EQ(all.first, 200);
  // Of three frames two are unreferenced, and every second one of these is not shown.
  EXPECT_LE(thinned.first, 140);
  EXPECT_EQ(thinned.second, all.second);
  EXPECT_EQ(read(Ratio{50, 1}).first, 200);
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
