#include "host/channel/source/source_clock.h"

#include <cstdint>
#include <cstdlib>
#include <optional>

#include <gtest/gtest.h>

namespace host {
namespace {

constexpr Time kFrame = 400'000;
constexpr Time kBase = 40'000 * kSecond;

SourceClock::Timestamps At(Time time, Time duration = kFrame) {
  return {time, time, duration};
}

// A source that may jump, with a video and an audio stream.
class SourceClockTest : public testing::Test {
 protected:
  Time Video(Time time, Time duration = kFrame) {
    const auto mapped = clock_->Map(video_, At(time, duration));
    jumped_ = mapped.discontinuity;
    return mapped.dts;
  }
  Time Audio(Time time) {
    const auto mapped = clock_->Map(audio_, At(time));
    jumped_ = mapped.discontinuity;
    return mapped.dts;
  }
  // Both streams, frame by frame, stay together.
  void Both(Time base, int frames) {
    for (int i = 0; i < frames; ++i) {
      EXPECT_EQ(Video(base + i * kFrame), Audio(base + i * kFrame));
    }
  }
  void Reset(std::optional<Time> forwardLimit = 10 * kSecond, std::optional<Time> origin = {},
             Time wrapPeriod = 0) {
    clock_.emplace(forwardLimit, origin);
    video_ = clock_->AddStream(wrapPeriod);
    audio_ = clock_->AddStream(wrapPeriod);
  }

  std::optional<SourceClock> clock_{std::in_place, 10 * kSecond};
  std::size_t video_ = clock_->AddStream(0);
  std::size_t audio_ = clock_->AddStream(0);
  bool jumped_ = false;  // the latest packet was flagged
};

TEST_F(SourceClockTest, StartsAtZeroOrAtItsOriginAndKeepsPresentationAsFarFromDecoding) {
  EXPECT_EQ(Video(90 * kSecond), 0);
  EXPECT_EQ(Audio(90 * kSecond - 1000), -1000);
  EXPECT_EQ(Video(90 * kSecond + kFrame), kFrame);
  Reset({}, 5 * kSecond);
  EXPECT_EQ(Video(6 * kSecond), kSecond);

  // A PTS with flipped bits, or further ahead than any codec reorders, is ignored.
  Reset({});
  const struct {
    Time ahead;
    std::optional<Time> pts;
  } packets[] = {{2 * kFrame, 2 * kFrame},
                 {3600 * kSecond, {}},
                 {-kSecond, {}},
                 {kFrame, 4 * kFrame},
                 {27 * kSecond / 10, {}}};
  Time dts = 0;
  for (const auto& packet : packets) {
    const auto mapped = clock_->Map(video_, {1000 + dts, 1000 + dts + packet.ahead, kFrame});
    EXPECT_EQ(mapped.dts, dts);
    EXPECT_EQ(mapped.pts, packet.pts) << dts;
    EXPECT_TRUE(dts > 0 || clock_->end() == 3 * kFrame);
    dts += kFrame;
  }
}

TEST_F(SourceClockTest, UndoesAWrapExactlyAndWithoutAFlag) {
  constexpr Time kPeriod = (std::int64_t{1} << 33) * 1000 / 9;
  Reset(10 * kSecond, {}, kPeriod);
  for (int i = 0; i < 6; ++i) {
    const Time raw = (kPeriod - 3 * kFrame + i * kFrame) % kPeriod;
    const auto mapped = clock_->Map(video_, {raw, (raw + kFrame) % kPeriod, kFrame});
    EXPECT_EQ(mapped.dts, i * kFrame);
    EXPECT_EQ(mapped.pts, (i + 1) * kFrame);
    EXPECT_FALSE(mapped.discontinuity);
  }
  // Another stream that begins before the wrap, or after it.
  EXPECT_EQ(Audio(kPeriod - kFrame), 2 * kFrame);
  EXPECT_EQ(clock_->Map(clock_->AddStream(kPeriod), At(kFrame)).dts, 4 * kFrame);
}

// A short clip that is sent repeatedly: the jumps are smaller than streams may be apart.
TEST_F(SourceClockTest, ContinuesThroughShortRepeats) {
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(Video(i % 25 * kFrame), i * kFrame);
    EXPECT_EQ(Audio(i % 25 * kFrame), i * kFrame);
  }
}

TEST_F(SourceClockTest, ContinuesAfterAJumpInEitherDirectionAndFlagsItOnceItIsConfirmed) {
  for (const Time target : {Time{0}, 500 * kSecond}) {
    Reset();
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(Video((i < 2 ? 100 * kSecond : target - 2 * kFrame) + i * kFrame), i * kFrame);
      EXPECT_EQ(jumped_, i == 3) << i;
    }
  }
}

TEST_F(SourceClockTest, KeepsAGapThatIsShorterThanTheLimitAndSmallStepsBack) {
  Video(0);
  for (const Time time : {9 * kSecond, 9 * kSecond - kFrame}) {
    EXPECT_EQ(Video(time), time);
    EXPECT_FALSE(jumped_);
  }
  Reset({});  // slides of a file
  Video(0);
  EXPECT_EQ(Video(3600 * kSecond), 3600 * kSecond);
}

TEST_F(SourceClockTest, KeepsAudioAndVideoTogetherWhenTheyJumpOneAfterTheOther) {
  Both(1000 * kSecond, 10);
  // Audio of the old part still arrives when the video has jumped.
  EXPECT_EQ(Video(20 * kSecond), 10 * kFrame);
  EXPECT_EQ(Audio(1000 * kSecond + 10 * kFrame), 10 * kFrame);
  EXPECT_FALSE(jumped_);
  EXPECT_EQ(Video(20 * kSecond + kFrame), 11 * kFrame);
  // Its first packet of the new part belongs to the frame of the same source time.
  EXPECT_EQ(Audio(20 * kSecond + kFrame + 1000), 11 * kFrame + 1000);
  EXPECT_TRUE(jumped_);
}

// A flipped bit of a timestamp is a jump there and back; every bit is flipped here.
TEST_F(SourceClockTest, DamagedTimestampsMoveNothing) {
  for (int bit = 10; bit < 33; ++bit) {
    const Time flip = (std::int64_t{1} << bit) * 1000 / 9;
    for (const int inARow : {1, 2}) {
      Reset();
      for (int i = 0; i < 100; ++i) {
        const Time time = kBase + i * kFrame;
        if (i % 20 == 5 || (inARow == 2 && i % 20 == 6)) {
          EXPECT_NEAR(Video(i % 20 == 5 ? time + flip : time - flip), i * kFrame,
                      SourceClock::kBackLimit);
        } else {
          EXPECT_EQ(Video(time), i * kFrame) << "bit " << bit << ", packet " << i;
          EXPECT_FALSE(jumped_);
        }
        const Time heard = Audio(i == 70 ? time - flip : time);
        EXPECT_TRUE(i == 70 || heard == i * kFrame) << "bit " << bit << ", packet " << i;
      }
    }
  }
}

// One damaged timestamp moves all audio packets that share it.
TEST_F(SourceClockTest, WhatJumpsAloneComesBackBesideTheOthers) {
  for (const Time jump : {-6 * kSecond, -kSecond, kSecond, 6 * kSecond, 6000 * kSecond}) {
    Reset();
    for (int i = 0; i < 100; ++i) {
      const Time time = kBase + i * kFrame;
      EXPECT_EQ(Video(time), i * kFrame);
      EXPECT_EQ(Audio(i >= 50 && i < 58 ? time + jump : time), i * kFrame) << jump << ", " << i;
    }
  }
}

TEST_F(SourceClockTest, KeepsAGapThatAllStreamsHaveAndOneThatASingleOneHasBesideTheOthers) {
  const auto video = [this](int from, int to) {
    for (int i = from; i < to; ++i) {
      EXPECT_TRUE(Video(5 * kSecond + i * kFrame) == 5 * kSecond + i * kFrame || i < 5);
    }
  };
  Both(0, 10);
  video(0, 5);
  EXPECT_EQ(Audio(5 * kSecond), 5 * kSecond);
  video(5, 100);  // the audio pauses
  Audio(9 * kSecond);
  EXPECT_EQ(Audio(9 * kSecond + kFrame), 9 * kSecond + kFrame);
  video(100, 130);
  // Audio packets are lost, and those before them were a second late.
  Audio(9 * kSecond + 2 * kFrame);
  Audio(10 * kSecond);
  EXPECT_EQ(Audio(10 * kSecond + kFrame), 10 * kSecond + kFrame);
}

// A sender is replaced by one without audio, that by one with audio; then the audio pauses.
TEST_F(SourceClockTest, AudioThatWasAwayComesBackBesideItsVideo) {
  const auto run = [&](Time base, int frames, bool hasAudio) {
    Time apart = 0;
    for (int i = 0; i < frames; ++i) {
      const Time shown = Video(base + i * kFrame);
      const Time heard = hasAudio ? Audio(base + i * kFrame) : shown;
      apart = i >= 5 ? std::max(apart, std::abs(shown - heard)) : 0;
    }
    return apart;
  };
  EXPECT_EQ(run(0, 100, true), 0);
  run(5000 * kSecond, 500, false);
  EXPECT_LE(run(2000 * kSecond, 100, true), SourceClock::kBackLimit);
  run(2000 * kSecond + 100 * kFrame, 300, false);
  EXPECT_LE(run(2000 * kSecond + 400 * kFrame, 100, true), SourceClock::kBackLimit);
}

// A step that a video of one frame a second takes for its interval is a jump for the audio, which
// comes first.
TEST_F(SourceClockTest, AJumpThatASlowStreamTakesForItsIntervalMovesBoth) {
  Time apart = 0;
  for (int i = 0; i < 500; ++i) {
    const Time time = i * kFrame + (i < 240 ? 0 : 104 * kSecond / 100);
    const Time heard = Audio(time);
    apart = i % 25 == 0 ? heard - Video(time, kSecond) : apart;
  }
  EXPECT_EQ(apart, 0);
}

TEST_F(SourceClockTest, FollowsAGapAndASlowIntervalOnceTheyAreConfirmed) {
  Video(0);
  Video(kFrame);
  EXPECT_EQ(Video(4 * kSecond), 2 * kFrame);
  EXPECT_EQ(Video(4 * kSecond + kFrame), 4 * kSecond + kFrame);
  // One frame a second, with other announced durations.
  Time dts = 0;
  for (int i = 2; i < 8; ++i) {
    dts = Video(4 * kSecond + i * kSecond);
  }
  EXPECT_EQ(dts, 11 * kSecond);
  // Timestamps that never confirm each other are accepted in the end.
  bool accepted = false;
  for (int i = 1; i < 8; ++i) {
    Video(i * i * 1000 * kSecond);
    accepted = accepted || jumped_;
  }
  EXPECT_TRUE(accepted);
}

TEST_F(SourceClockTest, PlacesARepeatAfterEverythingBeforeIt) {
  Reset({}, 2 * kSecond);
  Video(2 * kSecond);
  Audio(2 * kSecond + 3 * kFrame);
  clock_->Restart();
  EXPECT_EQ(Audio(2 * kSecond + 1000), 4 * kFrame + 1000);
  EXPECT_FALSE(jumped_);
  EXPECT_EQ(Video(2 * kSecond), 4 * kFrame);
}

TEST_F(SourceClockTest, PacketsWithoutTimestampsFollowEachOther) {
  Reset({});
  EXPECT_EQ(clock_->Map(video_, {{}, {}, kFrame}).dts, 0);
  EXPECT_EQ(Video(7 * kSecond), 0);
  EXPECT_EQ(clock_->Map(video_, {{}, {}, kFrame}).dts, kFrame);
  EXPECT_EQ(clock_->Map(video_, {{}, {}, 0}).dts, 2 * kFrame);
}

}  // namespace
}  // namespace host
