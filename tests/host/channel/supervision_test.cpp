// A channel's state, alarms and times, on a clock that the tests move.
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_alarms.h"
#include "host/channel/channel_ingest.h"
#include "host/channel/channel_life.h"
#include "host/channel/channel_queue.h"
#include "host/channel/item_placer.h"
#include "host/channel/source/media_reader.h"
#include "host/channel/video/frame_meter.h"
#include "tests/host/observers.h"
#include "util/reopen_delay.h"

namespace host {
namespace {

using testing::ElementsAre;

constexpr Time kFrameTime = kSecond / 25;

// A channel whose clock the test moves in steps of a frame.
class ChannelLifeTest : public testing::Test {
 protected:
  void Frames(Time length, Time duration = kFrameTime) {
    for (const Time end = now_ + length; now_ < end; now_ += duration) {
      Note(life_.Shown(now_, duration));
    }
  }
  void Nothing(Time length) {
    for (const Time end = now_ + length; now_ < end; now_ += kFrameTime) {
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

TEST_F(ChannelLifeTest, IsHeldWhenFramesStopAndLostWhenTheHoldIsOver) {
  Frames(kSecond);
  const Time last = now_ - kFrameTime;
  Nothing(4 * kSecond + 9 * kSecond / 10);
  EXPECT_THAT(history_, ElementsAre("live", "held (no picture comes)"));
  Nothing(kSecond / 5);
  EXPECT_EQ(life_.status(), (ChannelLife::Status{ChannelState::kLost, "no picture comes", last}));
  Frames(kFrameTime);
  Nothing(kSecond);
  Frames(kFrameTime);
  EXPECT_EQ(life_.status().state, ChannelState::kLost) << "stragglers, one by one";
  Frames(kFrameTime);
  EXPECT_EQ(life_.status(), (ChannelLife::Status{ChannelState::kLive, "", now_ - kFrameTime}));
}

TEST_F(ChannelLifeTest, AFailureIsKnownAtOnceAndALaterReasonKeepsTheTimeOfTheFirst) {
  Fail("connection refused");
  EXPECT_THAT(history_, ElementsAre("lost (connection refused)")) << "nothing to hold";
  Frames(kSecond);
  const Time last = now_ - kFrameTime;
  Fail("no data for 5 s");
  Fail("no data for 5 s");
  Nothing(kSecond);
  Fail("connection refused");
  EXPECT_EQ(life_.status(), (ChannelLife::Status{ChannelState::kHeld, "connection refused", last}));
  EXPECT_THAT(history_, ElementsAre("lost (connection refused)", "live", "held (no data for 5 s)",
                                    "held (connection refused)"));
}

TEST_F(ChannelLifeTest, WaitsLongerForSlowSources) {
  Frames(20 * kSecond, 2 * kSecond);
  now_ -= 2 * kSecond;
  Nothing(5 * kSecond);
  EXPECT_THAT(history_, ElementsAre("live"));
  Nothing(2 * kSecond);
  EXPECT_EQ(history_.back(), "lost (no picture comes)") << "held and at once lost";
}

class AlarmMonitorTest : public testing::Test {
 protected:
  void SetUp() override { monitor_.Opened(AudioAbsence::kNone, now_); }
  enum Video { kMoves, kStill, kBlack, kNone };

  static config::AlarmOptions Options() {
    config::AlarmOptions options;
    options.freeze.setAfter = 3 * kSecond;
    options.freeze.clearAfter = 2 * kSecond;
    options.silence.setAfter = 2 * kSecond;
    return options;
  }
  void Run(Time length, Video video, std::optional<float> loudest = 0.5F) {
    const Time since = now_;
    for (const Time end = now_ + length; now_ < end; now_ += kFrameTime) {
      video == kNone ? monitor_.Lost(since, now_)
                     : monitor_.OnFrame(video == kBlack, video != kMoves, now_);
      if (loudest.has_value() && video != kNone) {
        monitor_.Audio(*loudest, now_);
      }
    }
  }

  Time now_ = 0;
  std::vector<std::string> changes_;
  AlarmMonitor monitor_{Options(), [this](const AlarmMonitor::Change& change) {
                          changes_.push_back(std::string(NameOf(change.kind)) +
                                             (change.raised ? "+" : "-") +
                                             std::to_string(change.since / kMillisecond));
                        }};
};

TEST_F(AlarmMonitorTest, RaisesAfterTheTimeToSetAndClearsAfterTheTimeToClear) {
  Run(2 * kSecond, kStill);
  Run(2 * kSecond, kMoves);
  EXPECT_THAT(changes_, ElementsAre()) << "not long enough";
  Run(4 * kSecond, kStill);
  Run(kSecond, kMoves);
  Run(kFrameTime, kStill);
  Run(kSecond, kMoves);
  EXPECT_THAT(changes_, ElementsAre("freeze+4000")) << "not gone for long enough";
  Run(2 * kSecond, kMoves);
  EXPECT_THAT(changes_, ElementsAre("freeze+4000", "freeze-9040"));
}

TEST_F(AlarmMonitorTest, RaisesOneAlarmForOneFault) {
  Run(6 * kSecond, kBlack, 1.0F);  // a black frame is still, too
  Run(3 * kSecond, kNone);
  Run(2 * kSecond, kMoves);
  EXPECT_THAT(changes_, ElementsAre("clipping+0", "black+0", "loss+6000", "black-6000",
                                    "clipping-5960", "loss-9000"));
}

TEST_F(AlarmMonitorTest, CountsMissingAudioAsSilence) {
  Run(2 * kSecond, kMoves, 0.0011F);
  Run(3 * kSecond, kMoves, 0.0009F);
  EXPECT_THAT(changes_, ElementsAre("silence+2000"));
  Run(2 * kSecond, kMoves, 1.0F);
  EXPECT_THAT(changes_, ElementsAre("silence+2000", "clipping+5000", "silence-5000"));
  Run(4 * kSecond, kMoves, std::nullopt);
  EXPECT_EQ(changes_.back(), "silence+7960");
  EXPECT_EQ(monitor_.audio(), AudioState::kStopped);
  Run(kFrameTime, kMoves);
  EXPECT_EQ(monitor_.audio(), AudioState::kPresent) << "before the alarm is over";
  Run(2 * kSecond, kMoves, 0.0F);
  EXPECT_EQ(monitor_.audio(), AudioState::kSilent);
  monitor_.Opened(AudioAbsence::kNone, now_);
  Run(2 * kSecond, kMoves, std::nullopt);
  EXPECT_EQ(monitor_.audio(), AudioState::kNotStarted) << "whatever was heard before";
  monitor_.Opened(AudioAbsence::kNotInSource, now_);
  Run(4 * kSecond, kMoves, std::nullopt);
  EXPECT_EQ(changes_.back().substr(0, 8), "silence-") << "a source without audio is not silent";
}

TEST_F(AlarmMonitorTest, CountsPeaksInsteadOfWaitingForAudioThatClipsWithoutABreak) {
  const auto peaks = [&](Time length, Time distance, Time each) {
    const Time begun = now_;
    for (const Time end = now_ + length; now_ < end; now_ += kFrameTime) {
      monitor_.Audio((now_ - begun) % distance < each ? 1.02F : 0.4F, now_);
    }
  };
  peaks(10 * kSecond, kSecond, 5 * kFrameTime);
  EXPECT_THAT(changes_, ElementsAre()) << "one loud moment a second";
  peaks(10 * kSecond, kSecond / 2, kFrameTime);
  EXPECT_EQ(monitor_.raisedSince(AlarmKind::kClipping), 9 * kSecond);
  peaks(4 * kSecond, 10 * kSecond, 0);
  EXPECT_THAT(changes_, ElementsAre("clipping+9000", "clipping-19520"));
}

TEST(ChannelAlarms, AnAcknowledgementEndsWithItsAlarm) {
  ChannelLog log;
  const config::Channel channel;
  ChannelAlarms alarms(channel, &log);
  Time now = 0;
  const auto isUrgentAfter = [&](bool black) {
    for (const Time end = now + 20 * kSecond; now < end; now += kFrameTime) {
      alarms.monitor().OnFrame(black, false, now);
    }
    return alarms.isUrgent(AlarmKind::kBlack);
  };
  EXPECT_TRUE(isUrgentAfter(true));
  ChannelControls controls = alarms.controls();
  controls.acknowledged[static_cast<std::size_t>(AlarmKind::kBlack)].emplace();
  alarms.SetControls(controls, now);
  EXPECT_FALSE(isUrgentAfter(true));
  EXPECT_FALSE(isUrgentAfter(false));
  EXPECT_TRUE(isUrgentAfter(true)) << "another one";
}

// A YV12 frame of 64x48 samples.
class FrameMeterTest : public testing::Test {
 protected:
  static constexpr std::size_t kLuma = std::size_t{64} * 48;

  FrameCondition Measure() { return meter_.Measure(frame_.data(), 64, 48); }

  FrameMeter meter_{config::AlarmOptions()};
  std::vector<std::uint8_t> frame_ = std::vector<std::uint8_t>(kLuma * 3 / 2, 128);
};

TEST_F(FrameMeterTest, CallsBlackWhatIsBlackButForALogo) {
  const auto isBlack = [&](int luma, std::size_t brightOneIn) {
    for (std::size_t i = 0; i < kLuma; ++i) {
      frame_[i] = static_cast<std::uint8_t>(i % brightOneIn == 0 ? 200 : luma);
    }
    return Measure().black;
  };
  EXPECT_TRUE(isBlack(30, 61));
  EXPECT_FALSE(isBlack(30, 31));
  EXPECT_FALSE(isBlack(45, 61)) << "dark grey";
  // A fiftieth of a long row is bright, and one pixel more.
  constexpr int kWidth = 8200;
  std::vector<std::uint8_t> row(kWidth * 2 * 3 / 2, 200);
  std::fill_n(row.begin(), kWidth - 164, 16);
  EXPECT_TRUE(meter_.Measure(row.data(), kWidth, 2).black);
  row[0] = 200;
  EXPECT_FALSE(meter_.Measure(row.data(), kWidth, 2).black);
}

TEST_F(FrameMeterTest, CallsStillWhatDoesNotMoveAwayFromWhereItStopped) {
  EXPECT_FALSE(Measure().still) << "the first one";
  EXPECT_TRUE(Measure().still);
  frame_[130] = 160;  // noise of one pixel
  EXPECT_TRUE(Measure().still);
  for (const std::size_t plane : {kLuma, kLuma * 5 / 4}) {
    std::fill_n(frame_.begin() + static_cast<std::ptrdiff_t>(plane), kLuma / 4, 129);
    EXPECT_FALSE(Measure().still) << "a change of colour alone";
  }
  // A fade, each step of which is below what counts.
  int changes = 0;
  for (int step = 0; step < 64 * 10; step += 8) {
    for (std::size_t i = 0; i < kLuma; i += 12) {
      frame_[i] = static_cast<std::uint8_t>(128 + step / 64);
    }
    changes += Measure().still ? 0 : 1;
  }
  EXPECT_GE(changes, 2);
  EXPECT_FALSE(meter_.Measure(frame_.data(), 32, 48).still) << "another size";
}

// A live source whose frames arrive when the test says, on the timeline of the wall.
class LiveTimelineTest : public testing::Test {
 protected:
  // The next frame arrives when the wall's time is `now`; returns how late it is.
  Time Frame(Time now, bool jumped = false) {
    now_ = now;
    start_ += kFrameTime;
    placed_ = timeline_.Place(start_, jumped, now_);
    return now_ - placed_;
  }
  // Frames at their rate, from now on.
  void Regular(Time length, double rate = 1.0) {
    for (const Time end = now_ + length; now_ < end;) {
      Frame(now_ + static_cast<Time>(static_cast<double>(kFrameTime) / rate));
    }
  }
  // Frames that arrive together, after a gap that they fill.
  Time Burst(Time gap) {
    Time latest = 0;
    now_ += gap;
    for (Time left = gap; left >= kFrameTime; left -= kFrameTime) {
      latest = std::max(latest, Frame(now_));
    }
    return latest;
  }

  static constexpr Time kLead = LiveTimeline::Settings().lead;

  LiveTimeline timeline_{LiveTimeline::For(SourceKind::kPush, {25, 1}, kSecond)};
  Time start_ = 7 * kSecond;
  Time now_ = 50 * kSecond;
  Time placed_ = 0;
};

TEST_F(LiveTimelineTest, KeepsItsDistanceThroughAStallThatIsCaughtUpAndThroughBurstsInItsRoom) {
  Regular(20 * kSecond);
  Burst(5 * kSecond);
  Regular(20 * kSecond);
  for (int i = 0; i < 50; ++i) {
    EXPECT_LE(Burst(6 * kSecond / 10), 3 * kSecond / 4);
  }
  EXPECT_EQ(timeline_.changes(), 0);
  EXPECT_NEAR(timeline_.jitter(), 6 * kSecond / 10, 2 * kFrameTime);
  EXPECT_NEAR(timeline_.lead(), kLead, kFrameTime);
}

TEST_F(LiveTimelineTest, TheLeadGrowsWithBurstsThatComeTooLateAndShrinksAfterThem) {
  Regular(kSecond);
  Time latest = 0;
  for (int i = 0; i < 20; ++i) {
    latest = Burst(13 * kSecond / 10);
  }
  EXPECT_LE(latest, 3 * kSecond / 4) << "in time for the frame that they belong to";
  EXPECT_LE(timeline_.changes(), 3) << "one of them when it was opened";
  EXPECT_GT(timeline_.lead(), kSecond / 2);
  Regular(60 * kSecond);
  EXPECT_LE(timeline_.lead(), kSecond / 2);
  EXPECT_GE(timeline_.lead(), kLead);
}

TEST_F(LiveTimelineTest, AnchorsASourceAgainWhoseDistanceDoesNotFitAnyMore) {
  Regular(kSecond);
  Frame(now_ + 4 * kSecond, true);
  EXPECT_NEAR(placed_ - now_, kLead, kFrameTime) << "a sender that was restarted";
  now_ += 2 * kSecond;
  Regular(kSecond);
  EXPECT_GE(placed_, now_) << "it did not catch up";
  now_ += 6 * kSecond / 10;
  Regular(20 * kSecond);
  EXPECT_GE(placed_, now_ + kLead) << "it paused for less than the room and keeps its lead";
  start_ += 8 * kSecond;
  Frame(now_);
  EXPECT_NEAR(placed_ - now_, kLead, kFrameTime) << "its timestamps jumped";
  EXPECT_TRUE(timeline_.jumped());
  LiveTimeline ofFile(
      LiveTimeline::For(SourceKind::kFile, LiveTimeline::Settings().frameRate, kSecond));
  ofFile.Place(0, false, now_);
  EXPECT_EQ(ofFile.Place(8 * kSecond, false, now_), now_ + kSecond / 4 + 8 * kSecond);
}

TEST_F(LiveTimelineTest, FollowsAClockThatRunsFastOrSlowAndLosesNoFrameForIt) {
  for (const double rate : {1.01, 0.99}) {
    for (int second = 0; second < 600; ++second) {
      Regular(kSecond, rate);
      ASSERT_LE(placed_ - now_, 8 * kSecond / 10) << rate;
      ASSERT_LE(now_ - placed_, 3 * kSecond / 4) << rate;
    }
  }
}

TEST_F(LiveTimelineTest, TakesAudioNearTheWallsTimeOnly) {
  Regular(kSecond);
  Time placed = 0;
  EXPECT_EQ(timeline_.Follow(start_ - kSecond, now_, &placed), LiveTimeline::Fit::kFits);
  EXPECT_EQ(placed, placed_ - kSecond);
  EXPECT_EQ(timeline_.Follow(start_ - 2 * kSecond, now_, &placed), LiveTimeline::Fit::kTooLate);
  EXPECT_EQ(timeline_.Follow(start_ + 3 * kSecond, now_, &placed), LiveTimeline::Fit::kFits);
  EXPECT_EQ(timeline_.Follow(start_ + 5 * kSecond, now_, &placed), LiveTimeline::Fit::kTooEarly);
}

class ChannelQueueTest : public testing::Test {
 protected:
  void SetUp() override {
    queue_.FollowClock([this] { return now_.load(); });
    queue_.Open();
  }
  void Levels(Time due) { queue_.Push({due, due, 0, ReadyLevels{}}); }
  void News(Time due) { queue_.Push({due, due, 0, SourceEvent{}}); }
  // "40" for levels or frames due at 40, "news 40".
  std::vector<std::string> Taken() {
    std::vector<std::string> taken;
    while (const auto item = queue_.Take(0)) {
      taken.push_back((std::holds_alternative<SourceEvent>(item->content) ? "news " : "") +
                      std::to_string(item->due));
    }
    return taken;
  }

  std::atomic<Time> now_{0};
  ChannelQueue queue_{kSecond};
};

TEST_F(ChannelQueueTest, NoKindWaitsForAnother) {
  Levels(90);
  queue_.Push({10, 10, 0, ReadyFrame{}});
  now_ = 20;
  EXPECT_THAT(Taken(), ElementsAre("10"));
  queue_.Push({15, 15, 0, ReadyFrame{}});
  News(15);
  EXPECT_THAT(Taken(), ElementsAre("15", "news 15")) << "in the order in which they came";
}

TEST_F(ChannelQueueTest, DropsOrMovesVoidItemsButNoEvents) {
  for (const Time due : {10, 30, 50}) {
    Levels(due);
    News(due + 10);
  }
  queue_.ForgetFrom(30);
  Levels(35);
  queue_.Move(100);
  now_ = 200;
  EXPECT_EQ(queue_.roomAt(), 135 - kSecond + 1);
  EXPECT_THAT(Taken(), ElementsAre("news 20", "news 30", "news 30", "110", "135"));
}

TEST_F(ChannelQueueTest, ABoundOnEveryKindAndAReaderThatWaits) {
  for (std::size_t i = 0; i < ChannelQueue::kMaxItems + 5; ++i) {
    Levels(2 * kSecond);
  }
  EXPECT_EQ(queue_.dropped(), 5U);
  auto room = std::async(std::launch::async, [this] { return queue_.WaitForRoom(); });
  queue_.Close();
  EXPECT_FALSE(room.get());
  queue_.Open();
  Levels(2 * kSecond);
  now_ = kSecond + 1;
  EXPECT_TRUE(queue_.WaitForRoom());
}

TEST(DecodeBatchesTest, DecodesManyFramesInARowAndDoesNotWaitForAStuckReader) {
  ChannelQueue queue(kSecond);
  queue.Open();
  const auto push = [&](Time due) { queue.Push({due, due, 0, ReadyLevels{}}); };
  push(kSecond);
  EXPECT_FALSE(queue.hasRoom());
  queue.AdvanceTo(kSecond / 4);
  EXPECT_FALSE(queue.hasRoom()) << "before half of it is used up";
  queue.AdvanceTo(kSecond / 2 + 1);
  EXPECT_TRUE(queue.hasRoom());
  push(5 * kSecond / 4);
  EXPECT_TRUE(queue.hasRoom()) << "until it is full";

  DecodeBatches batches(1);
  const DecodeBatches::Turn stuck = batches.Take();
  const DecodeBatches::Turn next = batches.Take();  // returns while the first lasts
}

TEST(VideoWatchTest, CountsOnlyTheTimeOfReading) {
  using std::chrono::seconds;
  VideoWatch watch(seconds(5), std::chrono::milliseconds(40));
  VideoWatch::Clock::time_point now{};
  watch.BeginReading(now);
  EXPECT_FALSE(watch.Expired(now + seconds(4)));
  watch.EndReading(now += seconds(4));
  watch.BeginReading(now += seconds(100));
  EXPECT_FALSE(watch.Expired(now));
  EXPECT_TRUE(watch.Expired(now + seconds(1)));
  watch.OnFrame(now);
  EXPECT_FALSE(watch.Expired(now + seconds(4)));
  VideoWatch slow(seconds(5), seconds(10));
  slow.BeginReading(now);
  EXPECT_FALSE(slow.Expired(now + seconds(39))) << "one picture in ten seconds";
}

TEST(ReopenDelayTest, GrowsWithFailuresInARowAndIsSpread) {
  const qorp::ReopenLimits limits;
  qorp::ReopenDelay delay(limits, 1);
  qorp::ReopenDelay other(limits, 2);
  std::chrono::milliseconds longest{};
  bool differs = false;
  for (int i = 0; i < 10; ++i) {
    const auto each = delay.AfterFailure();
    EXPECT_GE(each, limits.min);
    EXPECT_LE(each, limits.max);
    longest = std::max(longest, each);
    differs = differs || each != other.AfterFailure();
  }
  EXPECT_TRUE(differs);
  EXPECT_GE(longest.count(), 4000);
  EXPECT_LE(delay.AfterWaiting().count(), 300) << "the attempt itself has waited";
  delay.Reset();
  EXPECT_LE(delay.AfterFailure().count(), 300);
}

}  // namespace
}  // namespace host
