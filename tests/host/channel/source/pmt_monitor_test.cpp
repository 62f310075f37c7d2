// A transport stream that is fed in pieces, whole and damaged.
#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "host/channel/source/psi_tables.h"
#include "tests/support/transport_stream.h"

namespace {

using transport::Bytes;
using transport::Join;
using transport::Low;
using transport::Packets;
using transport::Section;

constexpr int kMapPid = 0x1000;
constexpr int kVideoPid = 0x100;
constexpr int kAudioPid = 0x101;
constexpr std::uint8_t kMpeg2 = 0x02;
constexpr std::uint8_t kH264 = 0x1B;
constexpr std::uint8_t kPrivate = 0x06;

Bytes Association() {
  return Packets(0, Section(0, {0, 1, 0xE0 | kMapPid >> 8, Low(kMapPid)}));
}

// descriptors: of the audio; padding: bytes of a program descriptor without meaning.
Bytes Map(std::uint8_t video, std::uint8_t audio, const Bytes& descriptors = {},
          std::uint8_t padding = 0) {
  Bytes body{0xE1, 0x00, 0xF0, Low(2U + padding), 0x0A, padding};
  body.insert(body.end(), padding, 0);
  body.insert(body.end(),
              {video, 0xE1, 0x00, 0xF0, 0, audio, 0xE1, 0x01, 0xF0, Low(descriptors.size())});
  body.insert(body.end(), descriptors.begin(), descriptors.end());
  return Packets(kMapPid, Section(2, body));
}

TEST(PmtMonitor, DetectsAStreamThatContinuesInAnotherFormHoweverTheBytesAreCut) {
  // Its rest is in a packet in which another section may begin.
  Bytes changed = Map(kH264, 0x0F, {}, 200);
  changed[189] |= 0x40;
  changed.insert(changed.begin() + 192, 228 - 183);
  changed.pop_back();
  const Bytes stream = Join({Association(), Map(kMpeg2, 0x0F, {}, 200), Map(kMpeg2, 0x0F, {}, 200),
                             Association(), changed});
  for (const std::size_t piece : {1U, 7U, 188U, 189U, 1316U, 10'000U}) {
    host::PmtMonitor watch;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      EXPECT_FALSE(watch.HasChanged(kVideoPid)) << "before the map was whole, at " << at;
      watch.Feed({stream.data() + at, std::min(piece, stream.size() - at)});
    }
    EXPECT_TRUE(watch.HasChanged(kVideoPid)) << piece;
    EXPECT_FALSE(watch.HasChanged(kAudioPid)) << piece;
  }
}

TEST(PmtMonitor, KnowsPrivateDataByTheDescriptorThatNamesItsCodec) {
  const Bytes language{0x0A, 4, 'e', 'n', 'g', 0};
  const Bytes ac3{0x6A, 1, 0};
  const Bytes eac3{0x7A, 1, 0};
  host::PmtMonitor watch;
  watch.Feed(Join(
      {Association(), Map(kH264, kPrivate, ac3), Map(kH264, kPrivate, Join({language, ac3}))}));
  EXPECT_FALSE(watch.HasChanged(kAudioPid)) << "another language is the same codec";
  watch.Feed(Map(kH264, kPrivate, eac3));
  EXPECT_TRUE(watch.HasChanged(kAudioPid));
}

TEST(PmtMonitor, FollowsTheProgramsOfThePresentHoweverManyThereWere) {
  host::PmtMonitor watch;
  constexpr int kFirst = 0x200;
  for (int pid = kFirst; pid <= kFirst + static_cast<int>(host::SectionReader::kMaxPids); ++pid) {
    watch.Feed(Packets(0, Section(0, {0, 1, static_cast<std::uint8_t>(0xE0 | pid >> 8),
                                      Low(static_cast<std::size_t>(pid))})));
  }
  watch.Feed(Join({Association(), Map(kMpeg2, 0x0F), Map(kH264, 0x0F)}));
  EXPECT_TRUE(watch.HasChanged(kVideoPid));
}

TEST(PmtMonitor, IgnoresWhatIsDamagedOrNoTransportStream) {
  host::PmtMonitor watch;
  watch.Feed(Join({Association(), Map(kMpeg2, 0x0F)}));
  const Bytes changed = Map(kH264, 0x0F);
  // Each byte of the section damaged, also those of its CRC.
  for (std::size_t i = 5; i < 30; ++i) {
    Bytes damaged = changed;
    damaged[i] ^= 0x55;
    watch.Feed(damaged);
    ASSERT_FALSE(watch.HasChanged(kVideoPid)) << "byte " << i;
  }
  std::mt19937 random(5);
  for (int round = 0; round < 2000; ++round) {
    Bytes noise(1 + random() % 400);
    for (std::uint8_t& byte : noise) {
      byte = random() % 4 == 0 ? 0x47 : Low(random());
    }
    watch.Feed(noise);
  }
  EXPECT_FALSE(watch.HasChanged(kVideoPid));
  // The packets are found again; the first ones may be taken for a part of the noise.
  watch.Feed(Join({changed, changed, changed, changed}));
  EXPECT_TRUE(watch.HasChanged(kVideoPid));
}

}  // namespace
