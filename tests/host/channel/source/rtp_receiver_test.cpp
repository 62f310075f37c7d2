// Datagrams of RTP senders in every order and state.
#include "host/channel/source/rtp_receiver.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace host {
namespace {

using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kTransportStream = 33;

std::uint8_t Low(std::uint32_t value) {
  return static_cast<std::uint8_t>(value & 0xFF);
}

// One transport packet that names itself.
Bytes Payload(std::uint32_t name) {
  Bytes payload(188);
  payload[0] = 0x47;
  for (unsigned i = 0; i < 4; ++i) {
    payload[4 + i] = Low(name >> 8 * i);
  }
  return payload;
}

Bytes Packet(std::uint32_t sender, std::uint32_t number, const Bytes& payload,
             std::uint8_t type = kTransportStream) {
  Bytes packet{0x80, type, Low(number >> 8), Low(number), 0, 0, 0, 0, 0, 0, 0, Low(sender)};
  packet.insert(packet.end(), payload.begin(), payload.end());
  return packet;
}

// Begins like RTP, in the middle of a transport packet.
Bytes ShiftedRaw(std::uint32_t name) {
  Bytes raw(20, 0x80);
  for (int i = 0; i < 4; ++i) {
    const Bytes next = Payload(name);
    raw.insert(raw.end(), next.begin(), next.end());
  }
  return raw;
}

class RtpReceiverTest : public testing::Test {
 protected:
  // A packet whose payload has its name, a millisecond after the one before.
  void Send(std::uint32_t sender, std::uint32_t number) {
    Send(Packet(sender, number, Payload(number)));
  }
  void Send(const Bytes& datagram) {
    now_ += milliseconds(1);
    const RtpReceiver::Bytes given = receiver_.Take(datagram, now_);
    stream_.insert(stream_.end(), given.begin(), given.end());
    ASSERT_EQ(given.size() % 188, 0U);
    for (std::size_t at = 0; at < given.size(); at += 188) {
      std::uint32_t name = 0;
      for (unsigned i = 0; i < 4; ++i) {
        name |= static_cast<std::uint32_t>(given[at + 4 + i]) << 8 * i;
      }
      names_.push_back(name);
    }
  }
  static std::vector<std::uint32_t> Row(std::uint32_t first, std::uint32_t end) {
    std::vector<std::uint32_t> row(end - first);
    std::iota(row.begin(), row.end(), first);
    return row;
  }

  RtpReceiver receiver_;
  RtpReceiver::Clock::time_point now_{};
  std::vector<std::uint32_t> names_;  // of the output's packets
  Bytes stream_;                      // the whole output
};

TEST_F(RtpReceiverTest, SortsReorderedPacketsAndDropsDuplicates) {
  std::mt19937 random(1);
  std::vector<std::uint32_t> order = Row(1, 5000);
  for (std::size_t at = 0; at + 20 < order.size(); at += 20) {
    std::shuffle(order.begin() + static_cast<std::ptrdiff_t>(at),
                 order.begin() + static_cast<std::ptrdiff_t>(at) + 20, random);
  }
  Send(7, 65'000);  // wraps soon
  for (const std::uint32_t number : order) {
    const Bytes packet = Packet(7, 65'000 + number, Payload(65'000 + number));
    Send(packet);
    if (number % 3 == 0) {
      Send(packet);
    }
  }
  EXPECT_EQ(names_, Row(65'000, 70'000));
  EXPECT_EQ(receiver_.lost(), 0U);
}

TEST_F(RtpReceiverTest, SkipsLostPacketsAfterAShortWait) {
  for (std::uint32_t number = 0; number < 540; ++number) {
    if (number % 100 != 50 && number % 100 != 53) {
      Send(7, number);
      ASSERT_LE(number - (names_.empty() ? 0 : names_.back()), 60U) << "waits too long";
    }
  }
  std::vector<std::uint32_t> there = Row(0, 540);
  std::erase_if(there, [](std::uint32_t n) { return n % 100 == 50 || n % 100 == 53; });
  EXPECT_EQ(names_, there);
  EXPECT_EQ(receiver_.lost(), 540 - there.size());
  // Nor are packets of a burst kept without limit.
  for (std::uint32_t number = 541; number < 1500; ++number) {
    now_ -= milliseconds(1);
    Send(7, number);
  }
  EXPECT_GE(names_.back(), 1200U);
}

// With another sequence number or SSRC, wherever the new numbers are: among those that were just
// sent they look like late packets at first.
TEST_F(RtpReceiverTest, ASenderThatRestartsLosesNextToNothing) {
  for (const std::uint32_t sender : {7U, 8U}) {
    for (const std::uint32_t first : {0U, 10'000U, 19'500U, 21'500U, 40'000U, 65'530U}) {
      receiver_ = {};
      Send(7, 20'000);
      Send(7, 20'001);
      names_.clear();
      for (std::uint32_t number = first; number < first + 100; ++number) {
        Send(Packet(sender, number, Payload(number)));
      }
      ASSERT_FALSE(names_.empty()) << first;
      const bool looksLate = sender == 7 && first == 19'500;
      EXPECT_EQ(names_, Row(first + (looksLate ? 32 : 0), first + 100)) << sender;
    }
  }
}

TEST_F(RtpReceiverTest, StrayPacketsChangeNothingAndDoNotEndASource) {
  for (const bool isRaw : {false, true}) {
    receiver_ = {};
    names_.clear();
    for (std::uint32_t number = 0; number < 1000; ++number) {
      Send(isRaw ? Payload(number) : Packet(7, number, Payload(number)));
      receiver_.Take(Packet(9, number, Bytes(100), 96), now_);  // no transport stream
      if (!isRaw && number % 5 == 4) {
        Send(Packet(9, 30'000 + number, Payload(1'000'000)));  // another sender's
        Send(Packet(7, number + 20'000, Payload(1'000'000)));  // a damaged sequence number
        Send(Packet(7, number, {}, 200));                      // RTCP
        Send(Packet(7, number + 1, Bytes(100), 96));           // error correction
        Send(ShiftedRaw(1'000'000));                           // of another kind
      }
      ASSERT_FALSE(receiver_.carriesOther()) << number;
    }
    EXPECT_EQ(names_, Row(0, 1000));
  }
  // Noise that begins like RTP.
  std::mt19937 random(2);
  for (int i = 0; i < 100'000; ++i) {
    Bytes datagram(1 + random() % 40);
    std::generate(datagram.begin(), datagram.end(), [&] { return Low(random()); });
    datagram[0] = Low(datagram[0] % 64 + 128);
    now_ += milliseconds(random() % 3);
    EXPECT_LE(receiver_.Take(datagram, now_).size(), std::size_t{300} * 40);
  }
}

TEST_F(RtpReceiverTest, ParsesEveryHeaderAndRawDatagrams) {
  const Bytes payload = Payload(1);
  Bytes rich = Packet(7, 1, {});
  rich[0] |= 0x20 | 0x10 | 3;            // padding, extension, CSRC count
  rich.insert(rich.end(), 3 * 4, 0xEE);  // the CSRC list
  rich.insert(rich.end(), {1, 2, 0, 2, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE});
  rich.insert(rich.end(), payload.begin(), payload.end());
  rich.insert(rich.end(), {0, 0, 0, 4});
  Send(rich);
  Send(Packet(7, 2, Payload(2), 96));  // a dynamic payload type
  Send(Payload(3));
  EXPECT_EQ(names_, Row(1, 4));
}

TEST_F(RtpReceiverTest, SaysWhenThereIsNoTransportStream) {
  for (std::uint32_t number = 0; number < 40; ++number) {
    EXPECT_FALSE(receiver_.carriesOther() && number <= 20) << number;
    Send(number < 20 ? Packet(7, number, {}, 200) : Packet(7, number, Bytes(100), 96));
  }
  EXPECT_TRUE(receiver_.carriesOther());
}

// Raw, in datagrams that begin anywhere in a transport packet (FFmpeg's own length is 1472 bytes):
// many of them look like RTP, whichever comes first.
TEST_F(RtpReceiverTest, PassesEveryByteOfARawStreamWithoutAlignment) {
  std::mt19937 random(3);
  for (const std::size_t length : {1472U, 1328U, 1000U}) {
    for (std::size_t begin = 0; begin < 188; begin += 4) {
      receiver_ = {};
      stream_.clear();
      Bytes sent;
      while (sent.size() < 200 * length) {
        Bytes packet(188);
        std::generate(packet.begin(), packet.end(), [&] { return Low(random()); });
        packet[0] = 0x47;
        sent.insert(sent.end(), packet.begin(), packet.end());
      }
      sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(begin));
      for (std::size_t at = 0; at < sent.size(); at += length) {
        const std::size_t end = std::min(at + length, sent.size());
        const RtpReceiver::Bytes given =
            receiver_.Take(std::span(sent).subspan(at, end - at), now_);
        stream_.insert(stream_.end(), given.begin(), given.end());
        ASSERT_FALSE(receiver_.carriesOther()) << length << " " << begin << " " << at;
      }
      ASSERT_TRUE(stream_ == sent) << length << " " << begin;
    }
  }
}

TEST_F(RtpReceiverTest, ADecisionIsRevisedWhenTheSenderChangesItsFraming) {
  for (int round = 0; round < 3; ++round) {
    for (std::uint32_t number = 0; number < 100; ++number) {
      const Bytes raw = ShiftedRaw(number);
      const RtpReceiver::Bytes given = receiver_.Take(raw, now_);
      EXPECT_EQ(given.size(), round > 0 && number < 2 ? 0 : raw.size()) << round << " " << number;
    }
    for (std::uint32_t number = 0; number < 100; ++number) {
      const RtpReceiver::Bytes given = receiver_.Take(Packet(7, number, Payload(number)), now_);
      EXPECT_EQ(given.size(), number < 2 ? 200 : 188) << round << " " << number;
    }
  }
}

}  // namespace
}  // namespace host
