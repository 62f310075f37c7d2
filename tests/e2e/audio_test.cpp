#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
}

#include "tests/e2e/audio_harness.h"
#include "tests/e2e/wall_harness.h"
#include "tests/host/clips.h"

namespace {

using e2e::FlashClip;
using host::kMillisecond;
using host::kSecond;
using host::Time;

constexpr Time kOneFrame = 40 * kMillisecond;

struct AudioSource {
  const char* name;
  const char* extension;
  const char* rate;
  int flashEvery;
  const char* codec;
};

// All that the wall has to keep in step: four frame rates, every kind of audio that is passed
// through, and kinds that are encoded.
constexpr AudioSource kSources[] = {
    {"aac25", ".mkv", "25", 25, "aac"},
    {"adts2997", ".ts", "30000/1001", 30, "aac"},
    {"mp2at30", ".ts", "30", 30, "mp2"},
    {"ac3at5994", ".mkv", "60000/1001", 60, "ac3"},
    {"eac3at25", ".mp4", "25", 25, "eac3"},
    {"opus2997", ".mp4", "30000/1001", 30, "libopus"},
    {"pcm30", ".mkv", "30", 30, "pcm_s16le"},
    {"mp3at5994", ".mkv", "60000/1001", 60, "libmp3lame"},
    {"vorbis25", ".mkv", "25", 25, "libvorbis"},
};
constexpr int kColumns = 3;
constexpr int kWindowSide = 32;
constexpr int kPitch = 48;

class AudioTest : public e2e::WallTest {
 protected:
  std::filesystem::path FileOf(const AudioSource& source) const {
    return folder_ / (std::string(source.name) + source.extension);
  }
  void AddSources(double seconds) {
    for (std::size_t i = 0; i < std::size(kSources); ++i) {
      const AudioSource& source = kSources[i];
      FlashClip clip;
      clip.rate = source.rate;
      clip.codec = source.codec;
      clip.flashEvery = source.flashEvery;
      clip.pictures = static_cast<int>(seconds * source.flashEvery);
      clip.size = kWindowSide;
      clip.language = i % 2 == 0 ? "eng" : "";
      e2e::WriteFlashClip(clip, FileOf(source));
      wall_.AddChannel(FileOf(source).string(), {WindowX(i), WindowY(i), kWindowSide, kWindowSide});
    }
  }
  static int WindowX(std::size_t i) { return static_cast<int>(i) % kColumns * kPitch; }
  static int WindowY(std::size_t i) { return static_cast<int>(i) / kColumns * kPitch; }

  e2e::TestWall wall_{216, 144};
};

Time Nearest(const std::vector<Time>& times, Time time) {
  const auto nearest = std::min_element(times.begin(), times.end(), [&](Time a, Time b) {
    return std::abs(a - time) < std::abs(b - time);
  });
  return nearest == times.end() ? std::numeric_limits<Time>::max() / 2 : *nearest;
}

// `./dev sync` asks for half an hour.
double SecondsOfSync() {
  const char* const minutes = std::getenv("TAVREL_SYNC_MINUTES");
  return minutes == nullptr ? 8 : std::atof(minutes) * 60;
}

TEST_F(AudioTest, FlashAndClickOfEveryChannelStayTogetherFromStartToEnd) {
  const double seconds = SecondsOfSync();
  AddSources(seconds);
  const auto statuses = wall_.RenderInto({e2e::To(folder_ / "wall.mkv")});
  ASSERT_EQ(statuses[0].failure, "");

  std::vector<e2e::Point> centres;
  for (std::size_t i = 0; i < std::size(kSources); ++i) {
    centres.push_back({WindowX(i) + kWindowSide / 2, WindowY(i) + kWindowSide / 2});
  }
  const auto flashes = e2e::FindFlashes(folder_ / "wall.mkv", centres);
  for (std::size_t i = 0; i < std::size(kSources); ++i) {
    SCOPED_TRACE(kSources[i].name);
    const std::vector<Time> clicks = e2e::FindClicks(folder_ / "wall.mkv", i + 1);
    ASSERT_GE(flashes[i].size(), static_cast<std::size_t>(seconds) - 2);
    Time most = 0;
    Time least = 0;
    for (const Time flash : flashes[i]) {
      const Time offset = flash - Nearest(clicks, flash);
      ASSERT_LE(std::abs(offset), kOneFrame) << "at " << flash / kMillisecond << " ms";
      most = std::max(most, offset);
      least = std::min(least, offset);
    }
    EXPECT_GE(flashes[i].back(), static_cast<Time>((seconds - 2) * kSecond));
    std::printf("%-10s %4zu flashes, flash after click by %.1f to %.1f ms\n", kSources[i].name,
                flashes[i].size(), static_cast<double>(least) / kMillisecond,
                static_cast<double>(most) / kMillisecond);
  }
}

// Transport streams may carry audio up to a second after the video of the same time, or before it.
TEST_F(AudioTest, TheMeterMovesWithAudioThatIsMuxedLaterOrEarlier) {
  constexpr int kSize = 70;
  FlashClip clip;
  clip.pictures = 100;
  clip.size = kSize;
  e2e::WriteFlashClip(clip, folder_ / "clip.ts");
  int x = 0;
  for (const Time later : {-900, 500, 900}) {
    const auto file = folder_ / ("audio" + std::to_string(later) + ".ts");
    e2e::RemuxWithAudioLater(folder_ / "clip.ts", file, later * kMillisecond);
    wall_.AddChannel(file.string(), {x, 0, kSize, kSize});
    wall_.wall().channels.back().options.audio.meter = true;
    x += kSize + 2;
  }
  const std::vector<e2e::Frame> frames = wall_.Render(5 * kSecond);
  for (int channel = 0; channel < 3; ++channel) {
    const int left = channel * (kSize + 2);
    int flashes = 0;
    for (std::size_t n = 1; n + 1 < frames.size(); ++n) {
      const auto luma = [&](std::size_t frame, int column, int row) {
        return wall_.Luma(frames[frame], left + column, row);
      };
      // Inside a flash, and with it inside a click; the bar's middle column is opaque.
      const auto flash = [&](std::size_t frame) { return luma(frame, 40, 40) > 130; };
      int bar = 0;
      for (int row = 40; row < 60; ++row) {
        bar = std::max<int>(bar, luma(n, 3, row));
      }
      if (flash(n - 1) && flash(n) && flash(n + 1)) {
        ++flashes;
        EXPECT_GT(bar, 125) << "channel " << channel << ", frame " << n;
      } else if (!flash(n - 1) && !flash(n) && !flash(n + 1)) {
        EXPECT_LT(bar, 125) << "channel " << channel << ", frame " << n;
      }
    }
    EXPECT_GE(flashes, 9) << "channel " << channel;
  }
}

// The packets of a track, if need be without ADTS headers, which containers that store the
// configuration leave out.
std::vector<std::string> Payloads(const std::filesystem::path& file, std::size_t track,
                                  bool withoutHeaders) {
  std::vector<std::string> payloads;
  for (const host::AudioPacket& packet : e2e::ReadPackets(file, track)) {
    const std::uint8_t* const bytes = packet.packet->data;
    const int skip = withoutHeaders ? ((bytes[1] & 1) != 0 ? 7 : 9) : 0;
    payloads.emplace_back(bytes + skip, bytes + packet.packet->size);
  }
  return payloads;
}

TEST_F(AudioTest, ARecordingHasEveryChannelsAudioByteForByteInNamedTracks) {
  AddSources(3);
  const std::vector<std::string> names = {"wall.mkv", "wall.mp4", "wall.ts"};
  const auto statuses = wall_.RenderInto(
      {e2e::To(folder_ / names[0]), e2e::To(folder_ / names[1]), e2e::To(folder_ / names[2])},
      3 * kSecond);
  for (std::size_t n = 0; n < names.size(); ++n) {
    SCOPED_TRACE(names[n]);
    EXPECT_EQ(statuses[n].failure, "");
    EXPECT_EQ(statuses[n].video.written, 75U);
    EXPECT_EQ(e2e::DecodeWhole(folder_ / names[n]), "");
    const host::MediaInfo info = host::Opened(host::Source(folder_ / names[n]))->info();
    EXPECT_NEAR(*info.length, 3 * kSecond, kSecond / 10);
    ASSERT_EQ(info.audioTracks.size(), std::size(kSources));
    const bool hasAdtsHeaders = names[n] == "wall.ts";
    for (std::size_t i = 0; i < std::size(kSources); ++i) {
      const AudioSource& source = kSources[i];
      SCOPED_TRACE(source.name);
      const host::AudioInfo& track = info.audioTracks[i];
      EXPECT_TRUE(hasAdtsHeaders || track.title == source.name) << track.title;  // TS has no names
      EXPECT_EQ(track.language == "eng", i % 2 == 0) << track.language;
      if (!wall_.channels().AudioPaths(source.name).empty()) {
        continue;  // encoded
      }
      const bool hadHeader = std::string(source.name) == "adts2997";
      const bool isAac = std::string(source.codec) == "aac";
      // A transport stream needs headers: raw AAC gets them and is the same after them.
      const std::vector<std::string> before =
          Payloads(FileOf(source), 1, hadHeader && !hasAdtsHeaders);
      const std::vector<std::string> after =
          Payloads(folder_ / names[n], i + 1, isAac && !hadHeader && hasAdtsHeaders);
      ASSERT_LE(before.size() - after.size(), 2U) << "of " << before.size();
      EXPECT_NE(std::search(before.begin(), before.end(), after.begin(), after.end()),
                before.end());
    }
  }
  for (const char* const encoded : {"opus2997", "pcm30", "vorbis25"}) {
    EXPECT_THAT(wall_.channels().AudioPaths(encoded),
                testing::ElementsAre(testing::HasSubstr("is encoded for the outputs (aac")));
  }
  EXPECT_TRUE(wall_.channels().AudioPaths("mp3at5994").empty());
}

}  // namespace
