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
  PacketQueue queue({10'000, kSecond * 100});
  int overflows = 0;
  for (int i = 0; i < 16; ++i) {
    queue.PushDropping(Sound(i * 40 * kMillisecond));
    overflows += queue.PushDropping(Picture(i, i % 4 == 0)) == Pushed::kOverflowed ? 1 : 0;
  }
  EXPECT_GE(overflows, 1);
  EXPECT_LE(queue.bytes(), 11'200U);
  const std::size_t bytes = queue.bytes();
  const std::vector<Time> pictures = TimesIn(queue, TrackPacket::kVideo);
  EXPECT_EQ(pictures.front() % 160, 0) << "begins with a picture that can be decoded alone";
  EXPECT_EQ(pictures.back(), 600);
  EXPECT_EQ(pictures.size(), static_cast<std::size_t>(600 - pictures.front()) / 40 + 1);
  EXPECT_GT(bytes, 0U);
  EXPECT_EQ(queue.bytes(), 0U);
}

TEST(PacketQueue, KeepsTheSoundThatBelongsToThePicturesThatStay) {
  PacketQueue queue({1'000'000, 10 * 40 * kMillisecond});
  for (int i = 0; i < 12; ++i) {
    queue.PushDropping(Sound(i * 40 * kMillisecond + kSecond));  // ahead, as always
    queue.PushDropping(Picture(i, i % 5 == 0));
  }
  // Pictures 0 to 4 were dropped; no sound is from before picture 5.
  EXPECT_EQ(TimesIn(queue, 0).size(), 12U);
}

TEST(PacketQueue, RefusesWhatCannotBeDecodedAfterALongGroupWasDropped) {
  PacketQueue queue({3'000, kSecond * 100});
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
  PacketQueue queue({2'000, kSecond * 100});
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

class InterleaverTest : public testing::Test {
 protected:
  void Release(Time before) {
    interleaver_.Release(before, [this](std::size_t line, const ffmpeg::Packet& packet) {
      written_.emplace_back(line, packet->dts / kMillisecond);
    });
  }
  using Written = std::vector<std::pair<std::size_t, Time>>;

  Interleaver interleaver_{2};
  Written written_;
};

TEST_F(InterleaverTest, HandsOverInTheOrderOfTimeAndWaitsForNoLine) {
  for (const Time time : {0, 20, 40}) {
    interleaver_.Push(1, PacketAt(time * kMillisecond));
  }
  interleaver_.Push(0, PacketAt(10 * kMillisecond));
  Release(40 * kMillisecond);
  EXPECT_EQ(written_, (Written{{1, 0}, {0, 10}, {1, 20}}));
}

TEST_F(InterleaverTest, MovesWhatWaitsWhenTheChannelIsSynchronisedAnew) {
  for (int i = 0; i < 5; ++i) {
    interleaver_.Push(0, PacketAt(i * 20 * kMillisecond), kSecond);
  }
  Release(40 * kMillisecond);  // 0 and 20
  // 30 ms earlier: what would stand at 10 has no place any more.
  interleaver_.Push(0, PacketAt(70 * kMillisecond), kSecond - 30 * kMillisecond);
  Release(kSecond);
  EXPECT_EQ(written_, (Written{{0, 0}, {0, 20}, {0, 30}, {0, 50}, {0, 70}}));
  EXPECT_EQ(interleaver_.leftOut(), 1U);
  interleaver_.Push(0, PacketAt(30 * kMillisecond), kSecond - 100 * kMillisecond);
  Release(kSecond);
  EXPECT_EQ(written_.size(), 5U) << "that time has been written";
}

TEST_F(InterleaverTest, LetsNewSoundTakeThePlaceOfSoundForTheSameTime) {
  for (const Time time : {0, 20, 40, 60}) {
    interleaver_.Push(0, PacketAt(time * kMillisecond));
  }
  interleaver_.Push(0, PacketAt(21 * kMillisecond));
  Release(kSecond);
  EXPECT_EQ(written_, (Written{{0, 0}, {0, 21}}));
}

}  // namespace
}  // namespace host
