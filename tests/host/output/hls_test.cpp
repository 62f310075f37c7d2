// What players of HLS are given.
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/output/output_session_fixture.h"

namespace host {
namespace {

using testing::HasSubstr;

class HlsTest : public OutputSessionTest {
 protected:
  HlsTest() : OutputSessionTest("wall.m3u8") {
    settings_.keyFrameInterval = kSecond / 5;
    sinceStart_ = kSecond;
  }

  struct Playlist {
    std::string text;
    std::vector<double> lengths;
    std::vector<std::string> segments;
  };
  Playlist Read(const std::string& name) const {
    Playlist playlist{ReadWholeFile(folder_ / name), {}, {}};
    std::istringstream lines(playlist.text);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("#EXTINF:")) {
        playlist.lengths.push_back(std::stod(line.substr(8)));
      } else if (!line.starts_with("#")) {
        playlist.segments.push_back(line);
      }
    }
    return playlist;
  }
  // Frames, with audio of the first channel from one of them to another.
  void Feed(OutputSession& session, int frames, int firstSilent, int lastSilent) {
    constexpr Time kPacket = 1024 * kSecond / 48'000;
    for (int i = 0; i < frames; ++i) {
      for (; audio_ < i * 400'000; audio_ += kPacket) {
        if (i < firstSilent || i > lastSilent) {
          ffmpeg::Packet packet = ffmpeg::MakePacket();
          av_new_packet(packet.get(), 300);
          packet->pts = packet->dts = audio_;
          packet->duration = kPacket;
          session.Take({0, std::move(packet), 0});
        }
      }
      TakeFrame(session, i);
    }
  }

  Time audio_ = 0;
};

TEST_F(HlsTest, GapsOfAChannelLeaveNoShortSegments) {
  OutputCounters counters(2);
  OutputSession session(settings_, *video_, counters, Owner());
  Feed(session, 20 * 25, 3 * 25 + 10, 12 * 25);
  session.Finish();
  for (const char* const name : {"wall_video.m3u8", "wall_sound1.m3u8", "wall_sound2.m3u8"}) {
    const std::vector<double> lengths = Read(name).lengths;
    EXPECT_EQ(lengths.size(), 6U) << name;
    EXPECT_THAT(lengths, testing::Each(testing::DoubleNear(2, 0.05))) << name;
  }
}

TEST_F(HlsTest, APlaylistThatFailedIsContinuedUnderOtherNames) {
  std::vector<Playlist> before;
  const std::vector<std::string> names = {"wall_video.m3u8", "wall_sound1.m3u8"};
  OutputCounters counters(2);
  {
    OutputSession failed(settings_, *video_, counters, Owner());
    Feed(failed, 7 * 25, 0, -1);
  }
  for (const std::string& name : names) {
    before.push_back(Read(name));
    EXPECT_GE(before.back().segments.size(), 3U);
    EXPECT_THAT(before.back().text, testing::Not(HasSubstr("ENDLIST"))) << name;
  }
  VideoEncoder next(Video(kSecond / 5));
  OutputSession again(settings_, *video_, counters, Owner());
  for (int i = 0; i < 5 * 25; ++i) {
    const support::Yv12Buffer picture(96, 64);
    next.Encode(picture.bytes(), i * 400'000, [&](ffmpeg::Packet packet) {
      again.Take({TrackPacket::kVideo, std::move(packet), 0});
    });
  }
  again.Finish();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const Playlist after = Read(names[i]);
    EXPECT_THAT(after.text,
                testing::AllOf(HasSubstr("#EXT-X-DISCONTINUITY\n"), HasSubstr("ENDLIST")));
    std::set<std::string> all(before[i].segments.begin(), before[i].segments.end());
    ASSERT_FALSE(after.segments.empty());
    EXPECT_TRUE(all.contains(after.segments[0])) << "the old ones are still in the list";
    all.insert(after.segments.begin(), after.segments.end());
    EXPECT_GE(all.size(), before[i].segments.size() + 2) << "new names for new segments";
    EXPECT_LE(after.segments.size(), 6U);
  }
}

}  // namespace
}  // namespace host
