// What decides about a channel's state, alarms and times, on a clock that the tests move.
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_life.h"
#include "host/channel/channel_queue.h"
#include "host/channel/item_merger.h"
#include "host/channel/live_timeline.h"
#include "host/channel/picture/picture_meter.h"
#include "host/channel/reopen_delay.h"
#include "host/channel/source/picture_watch.h"

namespace host {
namespace {

using testing::ElementsAre;

constexpr Time kFrame = kSecond / 25;

// A channel whose clock the test moves in steps of a frame.
class ChannelLifeTest : public testing::Test {
 protected:
  void Pictures(Time length, Time duration = kFrame) {
    for (const Time end = now_ + length; now_ < end; now_ += duration) {
      Note(life_.Shown(now_, duration));
    }
  }
  // All at once, after their time.
  void LatePictures(int count, Time late) {
    for (int i = 0; i < count; ++i) {
      Note(life_.Shown(now_, kFrame, late));
    }
  }
  void Nothing(Time length) {
    for (const Time end = now_ + length; now_ < end; now_ += kFrame) {
      Note(life_.Tick(now_));
    }
  }
  void Fail(const std::string& reason) { Note(life_.Failed(reason, now_)); }
  void Note(bool changed) {
    const ChannelLife::Status& status = life_.status();
    EXPECT_EQ(changed, status != noted_);
    noted_ = status;
    if (changed) {
      history_.push_back(NameOf(status.state) +
                         (status.reason.empty() ? "" : " (" + status.reason + ")"));
    }
  }

  Time now_ = 100 * kSecond;
  ChannelLife life_{5 * kSecond, now_};
  ChannelLife::Status noted_ = life_.status();
  std::vector<std::string> history_;
};

TEST_F(ChannelLifeTest, IsHeldWhenPicturesStopAndLostWhenTheHoldIsOver) {
  Pictures(kSecond);
  const Time last = now_ - kFrame;
  Nothing(4 * kSecond + 9 * kSecond / 10);
  EXPECT_THAT(history_, ElementsAre("live", "held (no picture comes)"));
  Nothing(kSecond / 5);
  EXPECT_EQ(life_.status(), (ChannelLife::Status{ChannelState::kLost, "no picture comes", last}));
  Pictures(kFrame);
  Nothing(kSecond);
  Pictures(kFrame);
  EXPECT_EQ(life_.status().state, ChannelState::kLost) << "stragglers, one by one";
  Pictures(kFrame);
  EXPECT_EQ(life_.status().state, ChannelState::kLive);
  EXPECT_EQ(life_.status().since, now_ - kFrame);
}

TEST_F(ChannelLifeTest, WhatADecoderStillHeldMakesNoChannelLive) {
  Pictures(kSecond);
  const Time last = now_ - kFrame;
  Nothing(3 * kSecond);
  LatePictures(2, 3 * kSecond);
  Fail("no data for 3 s");
  Nothing(2 * kSecond);
  EXPECT_EQ(life_.status(), (ChannelLife::Status{ChannelState::kLost, "no data for 3 s", last}));
  // A source that goes on where it stood is back in spite of its old pictures.
  LatePictures(4, 5 * kSecond);
  EXPECT_EQ(life_.status().state, ChannelState::kLive);
}

TEST_F(ChannelLifeTest, AFailureIsKnownAtOnceAndALaterReasonKeepsTheTimeOfTheFirst) {
  Fail("connection refused");
  EXPECT_THAT(history_, ElementsAre("lost (connection refused)")) << "nothing to hold";
  Pictures(kSecond);
  const Time last = now_ - kFrame;
  Fail("no data for 5 s");
  Fail("no data for 5 s");
  Nothing(kSecond);
  Fail("connection refused");
  EXPECT_EQ(life_.status(), (ChannelLife::Status{ChannelState::kHeld, "connection refused", last}));
  EXPECT_THAT(history_, ElementsAre("lost (connection refused)", "live", "held (no data for 5 s)",
                                    "held (connection refused)"));
}

TEST_F(ChannelLifeTest, HasPatienceWithSlowSources) {
  Pictures(20 * kSecond, 2 * kSecond);
  now_ -= 2 * kSecond;
  Nothing(5 * kSecond);
  EXPECT_THAT(history_, ElementsAre("live"));
  Nothing(2 * kSecond);
  EXPECT_EQ(history_.back(), "lost (no picture comes)") << "held and at once lost";
}

class AlarmMonitorTest : public testing::Test {
 protected:
  static AlarmSettings Settings() {
    AlarmSettings settings;
    settings.times = {{{true, kSecond, kSecond},
                       {true, 5 * kSecond, kSecond},
                       {true, 3 * kSecond, 2 * kSecond},
                       {true, 2 * kSecond, kSecond},
                       {false, 0, 0}}};
    return settings;
  }
  void Run(Time length, bool black, bool still, std::optional<float> loudest) {
    for (const Time end = now_ + length; now_ < end; now_ += kFrame) {
      monitor_.Picture(black, still, now_);
      if (loudest.has_value()) {
        monitor_.Sound(*loudest, now_);
      }
    }
  }
  void Lose(Time length) {
    const Time since = now_;
    for (const Time end = now_ + length; now_ < end; now_ += kFrame) {
      monitor_.Lost(since, now_);
    }
  }

  Time now_ = 0;
  std::vector<std::string> changes_;
  AlarmMonitor monitor_{Settings(), [this](const AlarmMonitor::Change& change) {
                          changes_.push_back(std::string(NameOf(change.kind)) +
                                             (change.raised ? "+" : "-") +
                                             std::to_string(change.since / kMillisecond));
                        }};
};

TEST_F(AlarmMonitorTest, RaisesAfterTheTimeToSetAndClearsAfterTheTimeToClear) {
  monitor_.Opened(true, now_);
  Run(2 * kSecond, false, true, 0.5F);
  Run(2 * kSecond, false, false, 0.5F);
  EXPECT_THAT(changes_, ElementsAre()) << "not long enough";
  Run(4 * kSecond, false, true, 0.5F);
  EXPECT_THAT(changes_, ElementsAre("freeze+4000"));
  Run(kSecond, false, false, 0.5F);
  Run(kFrame, false, true, 0.5F);
  Run(kSecond, false, false, 0.5F);
  EXPECT_EQ(changes_.size(), 1U) << "not gone for long enough";
  Run(2 * kSecond, false, false, 0.5F);
  EXPECT_THAT(changes_, ElementsAre("freeze+4000", "freeze-9040"));
}

TEST_F(AlarmMonitorTest, TellsOneFaultByOneAlarm) {
  monitor_.Opened(true, now_);
  Run(6 * kSecond, true, true, 0.5F);
  EXPECT_THAT(changes_, ElementsAre("black+0")) << "a black picture stands still, too";
  Lose(3 * kSecond);
  EXPECT_THAT(changes_, ElementsAre("black+0", "loss+6000", "black-6000"));
  Run(2 * kSecond, false, false, 0.5F);
  EXPECT_EQ(changes_.back(), "loss-9000");
}

TEST_F(AlarmMonitorTest, HearsSilenceAlsoWhenNoSoundComes) {
  monitor_.Opened(true, now_);
  Run(2 * kSecond, false, false, 0.0011F);
  EXPECT_THAT(changes_, ElementsAre());
  Run(3 * kSecond, false, false, 0.0009F);
  EXPECT_THAT(changes_, ElementsAre("silence+2000"));
  Run(2 * kSecond, false, false, 1.0F);
  EXPECT_THAT(changes_, ElementsAre("silence+2000", "silence-5000")) << "clipping is switched off";
  Run(4 * kSecond, false, false, std::nullopt);
  EXPECT_EQ(changes_.back(), "silence+7960");
  monitor_.Opened(false, now_);
  Run(4 * kSecond, false, false, std::nullopt);
  EXPECT_EQ(changes_.back().substr(0, 8), "silence-") << "a source without sound is not silent";
}

// A YV12 picture of 64x48 samples.
class PictureMeterTest : public testing::Test {
 protected:
  static constexpr std::size_t kLuma = std::size_t{64} * 48;

  PictureCondition Measure() { return meter_.Measure(picture_.data(), 64, 48); }

  PictureMeter meter_{{10, -60}};
  std::vector<std::uint8_t> picture_ = std::vector<std::uint8_t>(kLuma * 3 / 2, 128);
};

TEST_F(PictureMeterTest, CallsBlackWhatIsBlackButForALogo) {
  std::fill_n(picture_.begin(), kLuma, 30);
  EXPECT_TRUE(Measure().black);
  const auto brighten = [&](std::size_t oneIn) {
    for (std::size_t i = 0; i < kLuma; i += oneIn) {
      picture_[i] = 200;
    }
  };
  brighten(61);
  EXPECT_TRUE(Measure().black);
  brighten(31);
  EXPECT_FALSE(Measure().black);
  std::fill_n(picture_.begin(), kLuma, 45);
  EXPECT_FALSE(Measure().black) << "dark grey";
}

TEST_F(PictureMeterTest, CountsToTheEndOfALongRow) {
  constexpr int kWidth = 8200;
  std::vector<std::uint8_t> picture(kWidth * 2 * 3 / 2, 200);
  EXPECT_FALSE(meter_.Measure(picture.data(), kWidth, 2).black);
  std::fill_n(picture.begin(), kWidth - 164, 16);
  EXPECT_TRUE(meter_.Measure(picture.data(), kWidth, 2).black) << "a fiftieth of a row is bright";
  picture[0] = 200;
  EXPECT_FALSE(meter_.Measure(picture.data(), kWidth, 2).black);
}

TEST_F(PictureMeterTest, CallsStillWhatDoesNotMoveAwayFromWhereItStopped) {
  EXPECT_FALSE(Measure().still) << "the first one";
  EXPECT_TRUE(Measure().still);
  picture_[130] = 160;  // noise of one pixel
  EXPECT_TRUE(Measure().still);
  // A fade, each step of which is below what counts.
  int changes = 0;
  for (int step = 0; step < 64 * 10; step += 8) {
    for (std::size_t i = 0; i < kLuma; i += 12) {
      picture_[i] = static_cast<std::uint8_t>(128 + step / 64);
    }
    changes += Measure().still ? 0 : 1;
  }
  EXPECT_GE(changes, 2);
  EXPECT_FALSE(meter_.Measure(picture_.data(), 32, 48).still) << "another size";
}

TEST_F(PictureMeterTest, AChangeOfColourAloneIsAChange) {
  Measure();
  std::fill_n(picture_.begin() + kLuma, kLuma / 4, 129);
  EXPECT_FALSE(Measure().still) << "in V";
  std::fill_n(picture_.begin() + kLuma * 5 / 4, kLuma / 4, 127);
  EXPECT_FALSE(Measure().still) << "in U";
  EXPECT_TRUE(Measure().still);
}

TEST(LiveTimelineTest, KeepsItsDistanceThroughAStallThatIsCaughtUp) {
  LiveTimeline timeline({});
  Time start = 7 * kSecond;
  Time now = 50 * kSecond;
  const Time shift = timeline.Place(start, false, now) - start;
  EXPECT_EQ(shift, 43 * kSecond + kSecond / 4);
  // Nothing came but what a demuxer still had, and now everything at once.
  now += 3 * kSecond;
  for (int i = 0; i < 100; ++i) {
    start += kFrame;
    now += i == 2 ? kSecond : kMillisecond;
    EXPECT_EQ(timeline.Place(start, false, now), start + shift);
  }
  EXPECT_EQ(timeline.moves(), 0);
}

TEST(LiveTimelineTest, GivesUpADistanceThatDoesNotFitTheSourceAnyMore) {
  LiveTimeline timeline({});
  Time now = 50 * kSecond;
  timeline.Place(0, false, now);
  now += 4 * kSecond;
  EXPECT_EQ(timeline.Place(kFrame, true, now), now + kSecond / 4) << "a sender that began anew";
  // Not caught up with: late from here on.
  Time start = kFrame;
  now += 2 * kSecond;
  for (int i = 0; i < 20; ++i) {
    start += kFrame;
    now += kFrame;
    timeline.Place(start, false, now);
  }
  EXPECT_EQ(timeline.moves(), 2);
  EXPECT_GE(timeline.Follow(start, now).value(), now) << "sound goes with it";
  EXPECT_TRUE(timeline.Follow(start + 3 * kSecond, now).has_value());
  EXPECT_FALSE(timeline.Follow(start + 5 * kSecond, now).has_value()) << "it would hold them up";
  // Stamps that leapt forwards.
  EXPECT_EQ(timeline.Place(start + 8 * kSecond, false, now), now + kSecond / 4);
  LiveTimeline ofFile(LiveTimeline::For(Pace::kStored, kSecond, 1));
  ofFile.Place(0, false, now);
  EXPECT_EQ(ofFile.Place(8 * kSecond, false, now), now + kSecond / 4 + 8 * kSecond);
}

// A source whose stamps run 1 % fast, and the reader and the queue of a channel. Hours of a clock
// that is a little wrong are minutes of this one.
TEST(LiveTimelineTest, DoesNotLetASourceThatCannotBeHeldBackFillTheQueue) {
  constexpr Time kSpan = kSecond;
  std::atomic<Time> now{0};
  ChannelQueue queue(kSpan);
  queue.FollowClock([&] { return now.load(); });
  queue.Open();
  LiveTimeline timeline(LiveTimeline::For(Pace::kPushed, kSpan, kFrame));
  // On a fault the reader waits in the queue, and this test would wait with it.
  auto pushed = std::async(std::launch::async, [&] {
    Time latest = 0;
    int givenUp = 0;
    for (Time start = 0; start < 600 * kSecond; start += kFrame) {
      now = start * 100 / 101;
      const Time due = timeline.Place(start, false, now);
      EXPECT_LE(due - now, kSpan);
      if (timeline.leapt()) {
        queue.ForgetFrom(due);
      }
      if (!queue.Push({due, ReadyPicture{}})) {
        return -1;
      }
      ++givenUp;
      while (const auto item = queue.Take(now)) {
        EXPECT_GE(item->time, latest);
        latest = item->time;
        --givenUp;
      }
    }
    return givenUp;
  });
  if (pushed.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
    queue.Close();
    FAIL() << "the reader was made to wait";
  }
  // The stamps are six seconds too many in the end: those pictures are given up, and no others.
  EXPECT_NEAR(pushed.get(), 150, 25);
}

TEST(ChannelQueueTest, ForgetsWhatHasLostItsPlaceButNoNews) {
  std::atomic<Time> now{0};
  ChannelQueue queue(kSecond);
  queue.FollowClock([&] { return now.load(); });
  queue.Open();
  queue.Push({10, ReadyLevels{}});
  queue.Push({20, SourceNews{SourceNews::Kind::kFailed, false, false, "early"}});
  queue.Push({30, ReadyLevels{}});
  queue.Push({40, SourceNews{SourceNews::Kind::kFailed, false, false, "late"}});
  queue.Push({50, ReadyLevels{}});
  queue.ForgetFrom(30);
  queue.Push({35, ReadyLevels{}});
  now = 100;
  std::vector<std::pair<Time, bool>> taken;
  while (const auto item = queue.Take(0)) {
    taken.emplace_back(item->time, std::holds_alternative<SourceNews>(item->content));
  }
  EXPECT_THAT(taken, ElementsAre(std::pair(10, false), std::pair(20, true), std::pair(30, true),
                                 std::pair(35, false)));
}

TEST(ItemMergerTest, TakesNewItemsWhereItHasForgottenOthers) {
  ItemMerger<int> merger(10);
  for (const Time time : {5, 10, 20, 25}) {
    merger.Push(time, static_cast<int>(time));
  }
  ASSERT_NE(merger.Next(), nullptr);
  merger.Take();
  merger.Take();  // up to 10: from 15 on, others may belong in between
  EXPECT_EQ(merger.Next(), nullptr);
  merger.ForgetFrom(8);
  merger.Push(9, 9);
  merger.Finish();
  ASSERT_NE(merger.Next(), nullptr);
  EXPECT_EQ(*merger.Next(), 9);
  EXPECT_EQ(merger.Take(), 9);
  EXPECT_EQ(merger.Next(), nullptr);
}

TEST(PictureWatchTest, CountsOnlyTheTimeOfReading) {
  using std::chrono::seconds;
  PictureWatch watch(seconds(5), std::chrono::milliseconds(40));
  PictureWatch::Clock::time_point now{};
  watch.BeginReading(now);
  EXPECT_FALSE(watch.Expired(now + seconds(4)));
  watch.EndReading(now += seconds(4));
  watch.BeginReading(now += seconds(100));
  EXPECT_FALSE(watch.Expired(now));
  EXPECT_TRUE(watch.Expired(now + seconds(1)));
  watch.Picture(now);
  EXPECT_FALSE(watch.Expired(now + seconds(4)));
  PictureWatch slow(seconds(5), seconds(10));
  slow.BeginReading(now);
  EXPECT_FALSE(slow.Expired(now + seconds(39))) << "one picture in ten seconds";
}

TEST(ReopenDelayTest, GrowsWithFailuresInARowAndIsSpread) {
  ReopenDelay delay(1);
  Time total = 0;
  auto longest = ReopenDelay::Milliseconds::zero();
  for (int i = 0; i < 10; ++i) {
    const auto each = delay.AfterFailure();
    EXPECT_GE(each, ReopenDelay::kShortest);
    EXPECT_LE(each, ReopenDelay::kLongest);
    longest = std::max(longest, each);
    total += each.count();
  }
  EXPECT_GE(longest.count(), 4000);
  EXPECT_LE(delay.AfterWaiting().count(), 300) << "the attempt itself has waited";
  delay.Reset();
  EXPECT_LE(delay.AfterFailure().count(), 300);
  ReopenDelay other(2);
  Time otherTotal = 0;
  for (int i = 0; i < 10; ++i) {
    otherTotal += other.AfterFailure().count();
  }
  EXPECT_NE(total, otherTotal);
}

}  // namespace
}  // namespace host
