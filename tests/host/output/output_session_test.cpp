// The files, tracks and playlists of an output, and its transport stream.
#include <algorithm>
#include <ctime>
#include <memory>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavformat/avio.h>
}

#include "host/config/value_text.h"
#include "host/ffmpeg/error.h"
#include "host/output/output_files.h"
#include "tests/host/clips.h"
#include "tests/host/output/output_session_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

using Existing = RecordingFiles::Existing;
using testing::HasSubstr;

// Writes the next file; returns its name.
std::string WriteNext(RecordingFiles& files) {
  const std::unique_ptr<ffmpeg::FileOutput> file = files.Next();
  avio_write(file->io(), reinterpret_cast<const unsigned char*>("new"), 3);
  file->Close();
  return std::filesystem::path(file->path()).filename().string();
}

TEST(RecordingFiles, KeepEveryFileThatExistsUnlessItIsToBeReplaced) {
  const TemporaryFolder folder;
  const std::string name = (folder / "wall.v1.mkv").string();
  WriteWholeFile(name, "old");
  WriteWholeFile(folder / "wall.v1-3.mkv", "old");
  RecordingFiles beside(name, Existing::kKept);
  EXPECT_EQ(WriteNext(beside), "wall.v1-2.mkv");
  EXPECT_TRUE(beside.avoided());
  beside.Next().reset();  // nothing was written: no stub stays
  EXPECT_EQ(WriteNext(beside), "wall.v1-5.mkv");
  EXPECT_FALSE(std::filesystem::exists(folder / "wall.v1-4.mkv"));
  RecordingFiles refusing(name, Existing::kRefused);
  EXPECT_THROW(refusing.Next(), ffmpeg::Error);
  EXPECT_EQ(ReadWholeFile(name), "old");
  EXPECT_EQ(ReadWholeFile(folder / "wall.v1-3.mkv"), "old");
  RecordingFiles replacing(name, Existing::kReplaced);
  EXPECT_EQ(WriteNext(replacing), "wall.v1.mkv");
  EXPECT_EQ(ReadWholeFile(name), "new");
  EXPECT_NE(WriteNext(replacing), "wall.v1.mkv") << "the files of one run are all kept";
  EXPECT_EQ(ReadWholeFile(folder / "wall.v1-3.mkv"), "old");
}

TEST(FilePattern, HoldsDateAndTime) {
  std::tm time{};
  time.tm_year = 126;
  time.tm_mon = 10;
  time.tm_mday = 5;
  time.tm_hour = 7;
  EXPECT_EQ(config::ExpandPattern("w-%Y%m%d-%H%M%S-100%%.mkv", time), "w-20261105-070000-100%.mkv");
  EXPECT_EQ(config::PatternMistake("%F.mkv"), std::nullopt);
}

class ContainerTest : public OutputSessionTest, public testing::WithParamInterface<const char*> {
 protected:
  ContainerTest() : OutputSessionTest(std::string("wall.") + GetParam()) {}
};

// In every container, so that players find in each track what was announced.
TEST_P(ContainerTest, BeginsInTimeWithoutAChannelWhoseTrackIsSilentUntilItComes) {
  OutputCounters counters(2);
  OutputSession session(settings_, *video_, counters, Owner());
  TakeFrame(session, 0);
  sinceStart_ = 650 * kMillisecond;
  TakeFrame(session, 1);
  EXPECT_FALSE(session.started()) << "the next frame is in time as well";
  sinceStart_ = 670 * kMillisecond;
  TakeFrame(session, 2);
  EXPECT_TRUE(session.started()) << "the next frame would be late";
  EXPECT_EQ(settings_.tracks[1].audio->state(), AudioTrack::State::kFixed);
  for (int i = 3; i < 50; ++i) {
    TakeFrame(session, i);
  }
  session.Finish();
  EXPECT_EQ(opened_, 1);

  const bool isHls = GetParam() == std::string("m3u8");
  for (int track = 1; track <= 2; ++track) {
    MediaReader::Settings reading;
    reading.source = (folder_ / (isHls ? "wall_sound" + std::to_string(track) + ".m3u8"
                                       : std::string("wall.") + GetParam()))
                         .string();
    reading.options.audio.track = isHls ? 1 : static_cast<std::size_t>(track);
    reading.wantVideo = false;
    const auto reader = Opened(reading);
    EXPECT_EQ(reader->info().audio->sampleRate, 48'000);
    const Content content = ReadAll(*reader);
    ASSERT_GE(content.packets.size(), 90U) << "two seconds of 1024 samples each";
    for (std::size_t i = 1; i < content.packets.size(); ++i) {
      EXPECT_NEAR(content.packets[i].start - content.packets[i - 1].start, 213'333,
                  2 * kMillisecond);
    }
    for (const AudioSamples& samples : content.samples) {
      const auto* const plane = reinterpret_cast<const float*>(samples.frame->extended_data[0]);
      EXPECT_THAT(std::vector<float>(plane, plane + samples.frame->nb_samples),
                  testing::Each(testing::FloatNear(0, 1e-4F)));
    }
  }
}

class CutTest : public OutputSessionTest {
 protected:
  CutTest() : OutputSessionTest("wall.mkv") {}
};

TEST_F(CutTest, SilenceFillsEachFileFromItsBeginning) {
  settings_.segments.length = kSecond;
  sinceStart_ = kSecond;
  RecordingFiles files(settings_.muxer.url, Existing::kKept);
  OutputSession::Owner owner = Owner();
  owner.files = &files;
  OutputCounters counters(2);
  OutputSession session(settings_, *video_, counters, owner);
  for (int i = 0; i < 50; ++i) {
    TakeFrame(session, i);
  }
  session.Finish();
  MediaReader::Settings reading = Source(folder_ / "wall-2.mkv");
  reading.wantVideo = false;
  EXPECT_GE(ReadAll(*Opened(reading)).packets.size(), 45U);
}

class FlvTest : public OutputSessionTest {
 protected:
  FlvTest() : OutputSessionTest("wall.flv") { settings_.tracks.clear(); }
};

TEST_F(FlvTest, BeginsAgainBeforeItsTimestampsEnd) {
  constexpr int kDay = 24 * 3600 * 25;  // frames
  RecordingFiles files(settings_.muxer.url, Existing::kKept);
  OutputSession::Owner owner = Owner();
  owner.files = &files;
  OutputCounters counters(0);
  OutputSession session(settings_, *video_, counters, owner);
  for (int day = 0; day < 50; ++day) {
    TakeFrame(session, day * kDay);
    TakeFrame(session, day * kDay + 1);
  }
  session.Finish();
  EXPECT_EQ(opened_, 3);
  EXPECT_EQ(counters.of(OutputCounters::kVideo).written, 100U);
  for (const char* const name : {"wall.flv", "wall-2.flv"}) {
    EXPECT_NEAR(static_cast<double>(ReadFile(folder_ / name).pictures.back().start) / kSecond,
                23 * 24 * 3600, 1)
        << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Containers, ContainerTest, testing::Values("mkv", "mp4", "ts", "m3u8"),
                         [](const auto& test) { return std::string(test.param); });

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

// The analyser's line of findings: {"packets": ..., "errors": {}, ...}.
std::string Analyse(const std::string& source) {
  ChildProcess analyser({TAVREL_TOOLS "/analyse_ts.py", "--json", source});
  return analyser.ReadLine().value_or("the analyser did not run");
}

class TransportStreamTest : public OutputSessionTest,
                            public testing::WithParamInterface<std::pair<bool, int>> {
 protected:
  static constexpr std::size_t kChannels = 36;

  TransportStreamTest() : OutputSessionTest("wall.ts", 2 * kSecond) {
    settings_.muxer.lowDelay = GetParam().first;
    settings_.frameRate = {25, GetParam().second};
    settings_.tracks.clear();
    for (std::size_t i = 0; i < kChannels; ++i) {
      settings_.tracks.push_back({"channel", "deu", false, std::make_shared<AudioTrack>()});
      settings_.tracks[i].audio->Fix(AacFormat(48'000, 2, ""));
    }
  }
};

// The first channel's audio comes as late as an output takes it, most of the others never come.
TEST_P(TransportStreamTest, HasTimeForItsDecodersAndItsTablesAndClocksInTime) {
  constexpr Time kFrame = 1024 * kSecond / 48'000;
  const int frames = GetParam().second;  // of 25 a second, from one to the next
  const Time late = frames > 1         ? 40 * kMillisecond
                    : GetParam().first ? 90 * kMillisecond
                                       : 490 * kMillisecond;
  OutputCounters counters(kChannels);
  OutputSession session(settings_, *video_, counters, Owner());
  std::int64_t audio = 0;
  for (int i = 0; i < 150; ++i) {
    TakeFrame(session, i * frames);
    for (; audio * kFrame < Time{i} * frames * 400'000; ++audio) {
      for (const int channel : {0, 1}) {
        ffmpeg::Packet packet = ffmpeg::MakePacket();
        av_new_packet(packet.get(), 576);
        packet->pts = packet->dts =
            audio * kFrame + (channel == 0 ? 40 * kMillisecond - late : kSecond);
        packet->duration = kFrame;
        session.Take({channel, std::move(packet), 0});
      }
    }
  }
  session.Finish();
  EXPECT_GT(counters.of(0).written, 100U);
  const std::string findings = Analyse(settings_.muxer.url);
  EXPECT_NE(findings.find("\"streams\": 37,"), std::string::npos) << findings;
  EXPECT_NE(findings.find("\"errors\": {}"), std::string::npos) << findings;
}

INSTANTIATE_TEST_SUITE_P(Delays, TransportStreamTest,
                         testing::Values(std::pair(false, 1), std::pair(true, 1),
                                         std::pair(false, 5)));

}  // namespace
}  // namespace host
