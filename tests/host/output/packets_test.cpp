#include <array>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/output/interleaver.h"
#include "host/output/packet_queue.h"
#include "host/output/transport_stream.h"

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

TrackPacket Frame(int number, bool key) {
  return {TrackPacket::kVideo, PacketAt(number * 40 * kMillisecond, 40 * kMillisecond, 1000, key),
          0};
}
TrackPacket Audio(Time time) {
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

TEST(PacketQueue, LetsARendererWaitUntilThereIsRoomOrItIsClosed) {
  OutputCounters counters{1};
  PacketQueue queue({2'000, kSecond * 100}, counters);
  queue.Push(Frame(0, true));
  queue.Push(Frame(1, false));
  EXPECT_FALSE(queue.WaitForRoom(std::chrono::milliseconds(1)));
  std::thread pusher([&] {
    for (int i = 2; i < 1000; ++i) {
      EXPECT_TRUE(queue.PushWaiting(Frame(i, false)));
    }
  });
  for (int i = 2; i < 1000; ++i) {
    EXPECT_LT(queue.bytes(), 3'000U) << "two fill it";
    EXPECT_TRUE(queue.Pop().has_value());
  }
  pusher.join();
  std::thread stuck([&] { EXPECT_FALSE(queue.PushWaiting(Frame(3, false))); });
  queue.Abandon();
  stuck.join();
  EXPECT_TRUE(queue.WaitForRoom(std::chrono::milliseconds(1)));
  EXPECT_FALSE(queue.Pop().has_value());
}

// One packet of audio that lies far behind is no reason to drop the video of eight seconds.
TEST(PacketQueue, MeasuresItsLengthByTheVideoAndCountsWhatItDrops) {
  OutputCounters counters{1};
  PacketQueue queue({1'000'000, 10 * 40 * kMillisecond}, counters);
  queue.PushDropping(Audio(-20 * kSecond));
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(queue.PushDropping(Frame(i, i % 5 == 0)), Pushed::kKept);
  }
  EXPECT_EQ(counters.of(TrackPacket::kVideo).dropped, 0U);
  for (int i = 9; i < 12; ++i) {
    queue.PushDropping(Frame(i, i % 5 == 0));
  }
  EXPECT_EQ(counters.of(TrackPacket::kVideo).dropped, 5U);
  EXPECT_EQ(counters.of(0).dropped, 1U);
  queue.Abandon();
  EXPECT_EQ(counters.of(TrackPacket::kVideo).dropped, 12U);
  EXPECT_EQ(queue.bytes(), 0U);

  // After a GOP that is longer than the queue, what cannot be decoded is refused.
  PacketQueue small({3'000, kSecond * 100}, counters);
  EXPECT_TRUE(small.DiscardFor(std::chrono::milliseconds(1)));
  EXPECT_EQ(small.PushDropping(Frame(-1, false)), Pushed::kRefused);
  for (const auto& [number, pushed] : {std::pair(0, Pushed::kKept),
                                       {1, Pushed::kKept},
                                       {2, Pushed::kKept},
                                       {3, Pushed::kOverflowed},
                                       {4, Pushed::kRefused},
                                       {5, Pushed::kKept},
                                       {6, Pushed::kKept},
                                       {7, Pushed::kKept},
                                       {10, Pushed::kOverflowed}}) {
    EXPECT_EQ(small.PushDropping(Frame(number, number % 5 == 0)), pushed) << number;
    if (number == 4) {
      EXPECT_EQ(small.PushDropping(Audio(5)), Pushed::kRefused);
    }
  }
  EXPECT_EQ(TimesIn(small, TrackPacket::kVideo), (std::vector<Time>{400}));
}

TEST(PacketQueue, SkipsToTheNewestKeyframeWithItsAudio) {
  OutputCounters counters{1};
  PacketQueue queue({1'000'000, 8 * kSecond}, counters);
  EXPECT_FALSE(queue.SkipToNewestKeyframe());
  for (int i = 0; i < 12; ++i) {
    queue.PushDropping(Audio(i * 40 * kMillisecond + kSecond / 5));
    queue.PushDropping(Frame(i, i % 5 == 0));
  }
  EXPECT_TRUE(queue.SkipToNewestKeyframe());
  EXPECT_EQ(counters.of(TrackPacket::kVideo).dropped, 10U);
  EXPECT_EQ(counters.of(0).dropped, 5U) << "audio before 400 ms";
  EXPECT_EQ(TimesIn(queue, TrackPacket::kVideo), (std::vector<Time>{400, 440}));
}

// A frame of so many packets, of which the first has the PCR, at 25 frames per second.
void PushFrame(TransportPacer& pacer, std::int64_t number, int packets) {
  for (int i = 0; i < packets; ++i) {
    std::array<std::uint8_t, TransportPacer::kPacketSize> packet{0x47, 0, 0, 0x10};
    if (i == 0) {
      const std::int64_t pcr = number * 3600 & ((std::int64_t{1} << 33) - 1);
      packet[3] = 0x30;
      packet[4] = 7;
      packet[5] = 0x10;
      for (int k = 0; k < 4; ++k) {
        packet[static_cast<std::size_t>(6 + k)] = static_cast<std::uint8_t>(pcr >> (25 - 8 * k));
      }
    }
    pacer.Push(packet);
  }
}

TEST(TransportPacer, SpreadsEachFrameOverItsTimeAndCatchesUpSlowly) {
  // The PCR wraps around within the second second.
  constexpr std::int64_t kFirst = (std::int64_t{1} << 33) / 3600 - 40;
  TransportPacer pacer;
  // Half a second has piled up; then frames of 700 packets and, now and then, ten.
  for (int i = 0; i < 12; ++i) {
    PushFrame(pacer, kFirst + i, 700);
  }
  std::int64_t frame = kFirst + 12;
  Time drained = 0;
  std::size_t longest = 0;
  for (Time now = 0; now < 2 * kSecond; now += kMillisecond) {
    if (now % (40 * kMillisecond) == 0) {
      longest = drained > 0 ? std::max(longest, pacer.bytes()) : 0;
      PushFrame(pacer, frame, frame % 5 == 0 ? 10 : 700);
      ++frame;
    }
    int inMillisecond = 0;
    while (!pacer.empty() && pacer.due() <= now) {
      inMillisecond +=
          static_cast<int>(pacer.Take(7, std::max(pacer.due(), now - kMillisecond)).size() /
                           TransportPacer::kPacketSize);
    }
    // Datagrams of seven: one that is begun, and one at each end of the millisecond.
    const int most = drained > 0 ? 700 / 24 + 14 : 4 * 700 / 24 + 21;
    ASSERT_LE(inMillisecond, most) << now;
    drained = drained == 0 && pacer.empty() ? now : drained;
  }
  EXPECT_GT(drained, 0);
  EXPECT_LT(drained, kSecond / 2);
  EXPECT_EQ(longest, 0U) << "each frame has left before the next one comes";
}

class InterleaverTest : public testing::Test {
 protected:
  void Audio(Time time, std::size_t channel = 0, Time offset = 0) {
    interleaver_.PushAudio(channel, PacketAt(time * kMillisecond), offset * kMillisecond);
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
  // 30 ms earlier: what would move to 10 ms has no place.
  Audio(70, 0, 970);
  Video(1000);
  EXPECT_EQ(
      written_,
      (Written{
          {kVideo, 0}, {0, 0}, {0, 20}, {kVideo, 40}, {0, 30}, {0, 50}, {0, 70}, {kVideo, 1000}}));
  EXPECT_EQ(LeftOut(), 1U);
  Audio(1010, 0, 970);
  Audio(520, 0, 270);  // what waits becomes too late
  Video(2000);
  EXPECT_EQ(written_[8], (std::pair<int, Time>{0, 520}));
}

TEST_F(InterleaverTest, LeavesOutAndCountsWhatHasNoPlace) {
  Video(0);
  for (const Time time : {0, 20, 40, 60, 21}) {
    Audio(time);  // the last one replaces others
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
