#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/output/interleaver.h"
#include "host/output/packet_queue.h"

namespace host {
namespace {

using Pushed = PacketQueue::Pushed;

ffmpeg::Packet PacketAt(Time time, Time duration = 20 * kMillisecond, int bytes = 100,
                        bool key = true) {
  ffmpeg::Packet packet = ffmpeg::MakePacket();
  av_new_packet(packet.get(), bytes);
  packet->pts = packet->dts = time;
  packet->duration = duration;
  packet->flags = key ? AV_PKT_FLAG_KEY : 0;
  return packet;
}

TrackPacket Picture(int number, bool key) {
  return {TrackPacket::kVideo, PacketAt(number * 40 * kMillisecond, 40 * kMillisecond, 1000, key),
          0};
}
TrackPacket Sound(Time time) {
  return {0, PacketAt(time), 0};
}

std::vector<Time> TimesIn(PacketQueue& queue, int track) {
  queue.Close();
  std::vector<Time> times;
  while (const std::optional<TrackPacket> packet = queue.Pop()) {
    if (packet->track == track) {
      times.push_back(packet->packet->dts / kMillisecond);
    }
  }
  return times;
}

TEST(PacketQueue, DropsWholeGroupsOfPicturesWithTheirSoundAndKeepsTheNewest) {
  OutputCounters counters{1};
  PacketQueue queue({13'000, kSecond * 100}, counters);
  int overflows = 0;
  for (int i = 0; i < 16; ++i) {
    queue.PushDropping(Sound(i * 40 * kMillisecond));
    overflows += queue.PushDropping(Picture(i, i % 4 == 0)) == Pushed::kOverflowed ? 1 : 0;
  }
  EXPECT_GE(overflows, 1);
  EXPECT_LE(queue.bytes(), 15'000U);
  const std::size_t bytes = queue.bytes();
  const std::vector<Time> pictures = TimesIn(queue, TrackPacket::kVideo);
  EXPECT_EQ(pictures.front() % 160, 0) << "begins with a picture that can be decoded alone";
  EXPECT_EQ(pictures.back(), 600);
  EXPECT_EQ(pictures.size(), static_cast<std::size_t>(600 - pictures.front()) / 40 + 1);
  EXPECT_GT(bytes, 0U);
  EXPECT_EQ(queue.bytes(), 0U);
}

TEST(PacketQueue, KeepsTheSoundThatBelongsToThePicturesThatStay) {
  OutputCounters counters{1};
  PacketQueue queue({1'000'000, 10 * 40 * kMillisecond}, counters);
  for (int i = 0; i < 12; ++i) {
    queue.PushDropping(Sound(i * 40 * kMillisecond + kSecond));  // ahead, as always
    queue.PushDropping(Picture(i, i % 5 == 0));
  }
  // Pictures 0 to 4 were dropped; no sound is from before picture 5.
  EXPECT_EQ(TimesIn(queue, 0).size(), 12U);
}

TEST(PacketQueue, RefusesWhatCannotBeDecodedAfterALongGroupWasDropped) {
  OutputCounters counters{1};
  PacketQueue queue({3'000, kSecond * 100}, counters);
  EXPECT_EQ(queue.PushDropping(Picture(0, true)), Pushed::kKept);
  EXPECT_EQ(queue.PushDropping(Picture(1, false)), Pushed::kKept);
  EXPECT_EQ(queue.PushDropping(Picture(2, false)), Pushed::kKept);
  EXPECT_EQ(queue.PushDropping(Picture(3, false)), Pushed::kOverflowed);
  EXPECT_EQ(queue.PushDropping(Picture(4, false)), Pushed::kRefused);
  EXPECT_EQ(queue.PushDropping(Sound(5)), Pushed::kRefused);
  EXPECT_EQ(queue.PushDropping(Picture(5, true)), Pushed::kKept);
  EXPECT_EQ(TimesIn(queue, TrackPacket::kVideo), (std::vector<Time>{200}));
}

TEST(PacketQueue, LetsARendererWaitUntilThereIsRoomOrItIsClosed) {
  OutputCounters counters{1};
  PacketQueue queue({2'000, kSecond * 100}, counters);
  queue.Push(Picture(0, true));
  queue.Push(Picture(1, false));
  EXPECT_FALSE(queue.WaitForRoom(std::chrono::milliseconds(1)));
  std::thread pusher([&] { EXPECT_TRUE(queue.PushWaiting(Picture(2, false))); });
  EXPECT_TRUE(queue.Pop().has_value());
  pusher.join();
  std::thread stuck([&] { EXPECT_FALSE(queue.PushWaiting(Picture(3, false))); });
  queue.Abandon();
  stuck.join();
  EXPECT_TRUE(queue.WaitForRoom(std::chrono::milliseconds(1)));
  EXPECT_FALSE(queue.Pop().has_value());
}

// One packet of audio that lies far behind is no reason to drop the video of eight seconds.
TEST(PacketQueue, MeasuresItsLengthByTheVideoAndCountsWhatItDrops) {
  OutputCounters counters{1};
  PacketQueue queue({1'000'000, 10 * 40 * kMillisecond}, counters);
  queue.PushDropping(Sound(-20 * kSecond));
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(queue.PushDropping(Picture(i, i % 5 == 0)), Pushed::kKept);
  }
  EXPECT_EQ(counters.of(TrackPacket::kVideo).dropped, 0U);
  for (int i = 9; i < 12; ++i) {
    queue.PushDropping(Picture(i, i % 5 == 0));
  }
  EXPECT_EQ(counters.of(TrackPacket::kVideo).dropped, 5U);
  EXPECT_EQ(counters.of(0).dropped, 1U);
  queue.Abandon();
  EXPECT_EQ(counters.of(TrackPacket::kVideo).dropped, 12U);
}

class InterleaverTest : public testing::Test {
 protected:
  void Audio(Time time, std::size_t channel = 0, Time shift = 0) {
    interleaver_.PushAudio(channel, PacketAt(time * kMillisecond), shift * kMillisecond);
  }
  void Video(Time time) { interleaver_.PushVideo(PacketAt(time * kMillisecond), write_); }
  std::uint64_t LeftOut(int track = 0) { return counters_.of(track).leftOut; }

  using Written = std::vector<std::pair<int, Time>>;
  static constexpr int kVideo = OutputCounters::kVideo;

  OutputCounters counters_{2};
  Interleaver interleaver_{counters_};
  Written written_;
  const Interleaver::Write write_ = [this](int track, const ffmpeg::Packet& packet) {
    written_.emplace_back(track, packet->dts / kMillisecond);
  };
};

TEST_F(InterleaverTest, HandsOverInTheOrderOfTimeFromTheFirstKeyframeOnAndWaitsForNoTrack) {
  for (const Time time : {80, 100, 120, 140}) {
    Audio(time, 1);
  }
  Audio(110, 0);
  interleaver_.PushVideo(PacketAt(60 * kMillisecond, kMillisecond, 100, false), write_);
  Video(100);
  Video(140);
  interleaver_.Finish(write_);
  EXPECT_EQ(written_, (Written{{kVideo, 0}, {1, 0}, {0, 10}, {1, 20}, {kVideo, 40}, {1, 40}}));
  EXPECT_EQ(LeftOut(kVideo), 1U) << "before the first keyframe";
  EXPECT_EQ(LeftOut(1), 1U) << "from before the first frame";
}

TEST_F(InterleaverTest, MovesWhatWaitsWhenTheChannelIsReSynchronised) {
  Video(0);
  for (int i = 0; i < 5; ++i) {
    Audio(i * 20, 0, 1000);
  }
  Video(40);
  // 30 ms earlier: what would stand at 10 has no place any more.
  Audio(70, 0, 970);
  Video(1000);
  EXPECT_EQ(
      written_,
      (Written{
          {kVideo, 0}, {0, 0}, {0, 20}, {kVideo, 40}, {0, 30}, {0, 50}, {0, 70}, {kVideo, 1000}}));
  EXPECT_EQ(LeftOut(), 1U);
}

TEST_F(InterleaverTest, LeavesOutAndCountsWhatHasNoPlace) {
  Video(0);
  for (const Time time : {0, 20, 40, 60, 21}) {
    Audio(time);  // the last one takes the place of others
  }
  EXPECT_EQ(LeftOut(), 3U);
  Video(1000);
  Audio(499);
  EXPECT_EQ(LeftOut(), 4U) << "too late to stand behind that video";
  Audio(501);
  Audio(25'000);
  EXPECT_EQ(LeftOut(), 5U) << "it would wait for minutes";
  Video(2000);
  Audio(25'000, 1);
  EXPECT_EQ(LeftOut(1), 1U);
  EXPECT_EQ(written_,
            (Written{{kVideo, 0}, {0, 0}, {0, 21}, {kVideo, 1000}, {0, 501}, {kVideo, 2000}}));
}

}  // namespace
}  // namespace host
