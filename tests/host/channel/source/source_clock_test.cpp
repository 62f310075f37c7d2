#include "host/channel/source/source_clock.h"

#include <cstdint>
#include <cstdlib>
#include <optional>

#include <gtest/gtest.h>

namespace host {
namespace {

constexpr Time kFrame = 400'000;
constexpr std::optional<Time> kNoLimit;

SourceClock::Timestamps At(Time time, Time duration = kFrame) {
  return {time, time, duration};
}

TEST(SourceClock, StartsAtZeroOrAtItsOriginAndKeepsTheStreamsApart) {
  SourceClock clock(kNoLimit);
  const auto video = clock.AddStream(0);
  const auto audio = clock.AddStream(0);
  EXPECT_EQ(clock.Map(video, At(90 * kSecond)).dts, 0);
  EXPECT_EQ(clock.Map(audio, At(90 * kSecond - 1000)).dts, -1000);
  EXPECT_EQ(clock.Map(video, At(90 * kSecond + kFrame)).dts, kFrame);

  SourceClock withOrigin(kNoLimit, 5 * kSecond);
  EXPECT_EQ(withOrigin.Map(withOrigin.AddStream(0), At(6 * kSecond)).dts, kSecond);
}

TEST(SourceClock, KeepsPresentationTimesAsFarFromDecodingTimesAsTheSource) {
  SourceClock clock(kNoLimit);
  const auto video = clock.AddStream(0);
  const auto mapped = clock.Map(video, {1000, 1000 + 2 * kFrame, kFrame});
  EXPECT_EQ(mapped.dts, 0);
  EXPECT_EQ(mapped.pts, 2 * kFrame);
  EXPECT_EQ(clock.end(), 3 * kFrame);
  // A flipped bit of the timestamp: as if there were none.
  EXPECT_FALSE(clock.Map(video, {1000 + kFrame, 1000 + 3600 * kSecond, kFrame}).pts.has_value());
  EXPECT_FALSE(clock.Map(video, {1000 + 2 * kFrame, 1000 - kSecond, kFrame}).pts.has_value());
  EXPECT_EQ(clock.Map(video, {1000 + 3 * kFrame, 1000 + 4 * kFrame, kFrame}).pts, 4 * kFrame);
  // Further ahead than any codec shows its pictures.
  EXPECT_FALSE(
      clock.Map(video, {1000 + 4 * kFrame, 1000 + 29 * kSecond / 10, kFrame}).pts.has_value());
}

TEST(SourceClock, UndoesAWrapExactlyAndWithoutAFlag) {
  constexpr Time kPeriod = (std::int64_t{1} << 33) * 1000 / 9;
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(kPeriod);
  for (int i = 0; i < 6; ++i) {
    const Time raw = (kPeriod - 3 * kFrame + i * kFrame) % kPeriod;
    const auto mapped = clock.Map(video, {raw, (raw + kFrame) % kPeriod, kFrame});
    EXPECT_EQ(mapped.dts, i * kFrame);
    EXPECT_EQ(mapped.pts, (i + 1) * kFrame);
    EXPECT_FALSE(mapped.discontinuity);
  }
  // Another stream that begins before the wrap, or after it.
  EXPECT_EQ(clock.Map(clock.AddStream(kPeriod), At(kPeriod - kFrame)).dts, 2 * kFrame);
  EXPECT_EQ(clock.Map(clock.AddStream(kPeriod), At(kFrame)).dts, 4 * kFrame);
}

// A short clip that is sent again and again: the jumps are smaller than streams may lie apart.
TEST(SourceClock, GoesOnThroughShortRepeats) {
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(0);
  const auto audio = clock.AddStream(0);
  constexpr int kRound = 25;
  for (int i = 0; i < 8 * kRound; ++i) {
    EXPECT_EQ(clock.Map(video, At(i % kRound * kFrame)).dts, i * kFrame);
    EXPECT_EQ(clock.Map(audio, At(i % kRound * kFrame)).dts, i * kFrame);
  }
}

TEST(SourceClock, GoesOnAfterAJumpInEitherDirectionAndFlagsItOnceItIsBorneOut) {
  for (const Time target : {Time{0}, 500 * kSecond}) {
    SourceClock clock(10 * kSecond);
    const auto video = clock.AddStream(0);
    clock.Map(video, At(100 * kSecond));
    clock.Map(video, At(100 * kSecond + kFrame));
    const auto jumped = clock.Map(video, At(target));
    EXPECT_EQ(jumped.dts, 2 * kFrame);
    EXPECT_FALSE(jumped.discontinuity);
    const auto second = clock.Map(video, At(target + kFrame));
    EXPECT_EQ(second.dts, 3 * kFrame);
    EXPECT_TRUE(second.discontinuity);
    const auto third = clock.Map(video, At(target + 2 * kFrame));
    EXPECT_EQ(third.dts, 4 * kFrame);
    EXPECT_FALSE(third.discontinuity);
  }
}

TEST(SourceClock, KeepsAGapThatIsShorterThanTheLimitAndSmallStepsBack) {
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(0);
  clock.Map(video, At(0));
  const auto late = clock.Map(video, At(9 * kSecond));
  EXPECT_EQ(late.dts, 9 * kSecond);
  EXPECT_FALSE(late.discontinuity);
  EXPECT_EQ(clock.Map(video, At(9 * kSecond - kFrame)).dts, 9 * kSecond - kFrame);

  SourceClock file(kNoLimit);
  const auto slides = file.AddStream(0);
  file.Map(slides, At(0));
  EXPECT_EQ(file.Map(slides, At(3600 * kSecond)).dts, 3600 * kSecond);
}

TEST(SourceClock, KeepsAudioAndPictureTogetherWhenTheyJumpOneAfterTheOther) {
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(0);
  const auto audio = clock.AddStream(0);
  const Time before = 1000 * kSecond;
  const Time after = 20 * kSecond;
  for (int i = 0; i < 10; ++i) {
    clock.Map(video, At(before + i * kFrame));
    clock.Map(audio, At(before + i * kFrame));
  }
  // The audio of the old part still comes while the picture has jumped.
  EXPECT_EQ(clock.Map(video, At(after)).dts, 10 * kFrame);
  const auto old = clock.Map(audio, At(before + 10 * kFrame));
  EXPECT_EQ(old.dts, 10 * kFrame);
  EXPECT_FALSE(old.discontinuity);
  EXPECT_EQ(clock.Map(video, At(after + kFrame)).dts, 11 * kFrame);
  // Its first packet of the new part belongs to the picture of the same source time.
  const auto adopted = clock.Map(audio, At(after + kFrame + 1000));
  EXPECT_EQ(adopted.dts, 11 * kFrame + 1000);
  EXPECT_TRUE(adopted.discontinuity);
}

// A bit of a timestamp that flips is a jump there and back; here every bit that a timestamp has.
TEST(SourceClock, DamagedStampsMoveNothing) {
  for (int bit = 10; bit < 33; ++bit) {
    for (const int inARow : {1, 2}) {
      SourceClock clock(10 * kSecond);
      const auto video = clock.AddStream(0);
      const auto audio = clock.AddStream(0);
      const Time base = 40'000 * kSecond;
      for (int i = 0; i < 100; ++i) {
        const Time time = base + i * kFrame;
        const bool damaged = i == 50 || (inARow == 2 && i == 51);
        const Time flip = (std::int64_t{1} << bit) * 1000 / 9;
        const Time timestamp = !damaged ? time : i == 50 ? time + flip : time - flip;
        const auto picture = clock.Map(video, At(timestamp));
        const auto heard = clock.Map(audio, At(i == 70 ? time - flip : time));
        if (!damaged) {
          EXPECT_EQ(picture.dts, i * kFrame) << "bit " << bit << ", packet " << i;
          EXPECT_FALSE(picture.discontinuity);
        } else {
          EXPECT_NEAR(picture.dts, i * kFrame, SourceClock::kBackLimit);
        }
        if (i != 70) {
          EXPECT_EQ(heard.dts, i * kFrame) << "bit " << bit << ", packet " << i;
        }
      }
    }
  }
}

// One damaged timestamp moves all packets of audio that a container gave it together.
TEST(SourceClock, WhatJumpsAloneComesBackBesideTheOthers) {
  for (const Time jump : {-6 * kSecond, -kSecond, kSecond, 6 * kSecond, 6000 * kSecond}) {
    SourceClock clock(10 * kSecond);
    const auto video = clock.AddStream(0);
    const auto audio = clock.AddStream(0);
    const Time base = 40'000 * kSecond;
    for (int i = 0; i < 100; ++i) {
      const Time time = base + i * kFrame;
      const bool damaged = i >= 50 && i < 58;
      EXPECT_EQ(clock.Map(video, At(time)).dts, i * kFrame);
      const auto heard = clock.Map(audio, At(damaged ? time + jump : time));
      EXPECT_EQ(heard.dts, i * kFrame) << "leap " << jump << ", packet " << i;
    }
  }
}

TEST(SourceClock, KeepsAGapThatAllStreamsHaveAndOneThatASingleOneHasBesideTheOthers) {
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(0);
  const auto audio = clock.AddStream(0);
  for (int i = 0; i < 10; ++i) {
    clock.Map(video, At(i * kFrame));
    clock.Map(audio, At(i * kFrame));
  }
  for (int i = 0; i < 5; ++i) {
    clock.Map(video, At(5 * kSecond + i * kFrame));
  }
  EXPECT_EQ(clock.Map(audio, At(5 * kSecond)).dts, 5 * kSecond);
  EXPECT_EQ(clock.Map(video, At(5 * kSecond + 5 * kFrame)).dts, 5 * kSecond + 5 * kFrame);
  // The audio pauses.
  for (int i = 6; i < 100; ++i) {
    EXPECT_EQ(clock.Map(video, At(5 * kSecond + i * kFrame)).dts, 5 * kSecond + i * kFrame);
  }
  clock.Map(audio, At(9 * kSecond));
  EXPECT_EQ(clock.Map(audio, At(9 * kSecond + kFrame)).dts, 9 * kSecond + kFrame);
  // Audio packets are lost, and what came before them is a second late.
  for (int i = 100; i < 130; ++i) {
    clock.Map(video, At(5 * kSecond + i * kFrame));
  }
  clock.Map(audio, At(9 * kSecond + 2 * kFrame));
  clock.Map(audio, At(10 * kSecond));
  EXPECT_EQ(clock.Map(audio, At(10 * kSecond + kFrame)).dts, 10 * kSecond + kFrame);
}

// A sender that is replaced by one without audio, and that by one with audio; a mute in between.
TEST(SourceClock, AudioThatWasAwayComesBackBesideItsVideo) {
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(0);
  const auto audio = clock.AddStream(0);
  int frame = 0;
  const auto run = [&](Time base, int frames, bool hasAudio) {
    Time apart = 0;
    for (int i = 0; i < frames; ++i, ++frame) {
      const Time picture = clock.Map(video, At(base + i * kFrame)).dts;
      if (hasAudio) {
        const Time heard = clock.Map(audio, At(base + i * kFrame)).dts;
        apart = i >= 5 ? std::max(apart, std::abs(picture - heard)) : 0;
      }
    }
    return apart;
  };
  EXPECT_EQ(run(0, 100, true), 0);
  run(5000 * kSecond, 500, false);
  EXPECT_LE(run(2000 * kSecond, 100, true), SourceClock::kBackLimit);
  run(2000 * kSecond + 100 * kFrame, 300, false);
  EXPECT_LE(run(2000 * kSecond + 400 * kFrame, 100, true), SourceClock::kBackLimit);
}

// A frame a second follows through a step that is a jump for its audio, which comes first.
TEST(SourceClock, AJumpThatASlowStreamTakesForItsRhythmMovesBoth) {
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(0);
  const auto audio = clock.AddStream(0);
  Time apart = 0;
  for (int i = 0; i < 500; ++i) {
    const Time time = i * kFrame + (i < 240 ? 0 : 104 * kSecond / 100);
    const Time heard = clock.Map(audio, At(time)).dts;
    if (i % 25 == 0) {
      apart = heard - clock.Map(video, At(time, kSecond)).dts;
    }
  }
  EXPECT_EQ(apart, 0);
}

TEST(SourceClock, FollowsAGapAndASlowRhythmOnceTheyAreBorneOut) {
  SourceClock clock(10 * kSecond);
  const auto video = clock.AddStream(0);
  clock.Map(video, At(0));
  clock.Map(video, At(kFrame));
  EXPECT_EQ(clock.Map(video, At(4 * kSecond)).dts, 2 * kFrame);
  EXPECT_EQ(clock.Map(video, At(4 * kSecond + kFrame)).dts, 4 * kSecond + kFrame);
  // One picture a second, whose durations say something else.
  Time dts = 0;
  for (int i = 2; i < 8; ++i) {
    dts = clock.Map(video, At(4 * kSecond + i * kSecond)).dts;
  }
  EXPECT_EQ(dts, 11 * kSecond);
  // Timestamps without any sense are believed in the end.
  bool believed = false;
  for (int i = 1; i < 8; ++i) {
    believed = believed || clock.Map(video, At(i * i * 1000 * kSecond)).discontinuity;
  }
  EXPECT_TRUE(believed);
}

TEST(SourceClock, PlacesARepeatAfterEverythingBeforeIt) {
  SourceClock clock(kNoLimit, 2 * kSecond);
  const auto video = clock.AddStream(0);
  const auto audio = clock.AddStream(0);
  clock.Map(video, At(2 * kSecond));
  clock.Map(audio, At(2 * kSecond + 3 * kFrame));
  clock.Restart();
  const auto first = clock.Map(audio, At(2 * kSecond + 1000));
  EXPECT_EQ(first.dts, 4 * kFrame + 1000);
  EXPECT_FALSE(first.discontinuity);
  EXPECT_EQ(clock.Map(video, At(2 * kSecond)).dts, 4 * kFrame);
}

TEST(SourceClock, LetsPacketsWithoutStampsFollowEachOther) {
  SourceClock clock(kNoLimit);
  const auto video = clock.AddStream(0);
  EXPECT_EQ(clock.Map(video, {{}, {}, kFrame}).dts, 0);
  EXPECT_EQ(clock.Map(video, At(7 * kSecond)).dts, 0);
  EXPECT_EQ(clock.Map(video, {{}, {}, kFrame}).dts, kFrame);
  EXPECT_EQ(clock.Map(video, {{}, {}, 0}).dts, 2 * kFrame);
}

}  // namespace
}  // namespace host
