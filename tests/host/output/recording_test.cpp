// What becomes of the files and tracks of a recording.
#include <algorithm>
#include <ctime>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavformat/avio.h>
}

#include "host/config/value_text.h"
#include "host/ffmpeg/error.h"
#include "host/output/recording.h"
#include "tests/host/clips.h"
#include "tests/host/output/output_session_fixture.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

using Existing = RecordingFiles::Existing;

// Writes into the next file; its name.
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

}  // namespace
}  // namespace host
