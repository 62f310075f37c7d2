#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/audio_harness.h"
#include "tests/e2e/wall_harness.h"
#include "tests/host/clips.h"
#include "tests/support/pipe.h"

namespace {

using e2e::To;
using host::kSecond;
using testing::HasSubstr;

class OutputsTest : public e2e::WallTest {
 protected:
  void AddChannels(const std::vector<std::string>& codecs, const std::string& extension = ".mkv") {
    for (const std::string& codec : codecs) {
      const auto i = static_cast<int>(wall_.wall().channels.size());
      const std::string file = folder_ / ("clip" + std::to_string(i) + extension);
      e2e::FlashClip clip;
      clip.codec = codec;
      e2e::WriteFlashClip(clip, file);
      wall_.AddChannel(file, {i * 40, 0, 32, 32});
    }
  }
  e2e::TestWall wall_{160, 32};
};

TEST_F(OutputsTest, AConsumerThatStopsReadingTakesNothingFromTheOthers) {
  AddChannels({"aac", "aac", "aac"});
  Pipe pipe(folder_ / "unread.ts");
  pipe.OpenUnread();
  wall_.wall().outputs = {To(folder_ / "unread.ts"), To(folder_ / "wall.mkv")};
  host::WallSession::Settings settings = wall_.SessionSettings();
  settings.outputQueue.bytes = 50'000;
  settings.finishLimit = std::chrono::milliseconds(200);
  std::size_t mostBytes = 0;
  const auto session =
      RunLiveUntil(wall_, std::move(settings), "the unread output has dropped frames three times",
                   [&](host::OutputSet& outputs) {
                     mostBytes = std::max(mostBytes, outputs.queuedBytes());
                     return outputs.status()[0].overflows >= 3;
                   });

  const std::vector<host::OutputSet::Status> status = session->outputs().status();
  EXPECT_EQ(status[1].overflows, 0U);
  EXPECT_GE(wall_.logger().BufferFull()["output 1"], 3);
  EXPECT_EQ(wall_.logger().BufferFull()["output 2"], 0);
  // A queue is full once it has reached its limit: it holds one frame more.
  EXPECT_LT(mostBytes, 2 * 50'000U);
  // Full rate: every composed frame for which the encoder had time.
  EXPECT_EQ(status[1].video.written + status[1].video.dropped, session->counters().composed);
  EXPECT_EQ(status[1].failure, "");
  EXPECT_EQ(e2e::DecodeWhole(folder_ / "wall.mkv"), "");
  // 25 frames and nearly 47 packets of audio in a second; the audio begins later.
  EXPECT_GT(2 * e2e::ReadPackets(folder_ / "wall.mkv", 3).size(),
            status[1].video.written * 47 / 25);
}

// The same encoders feed all outputs: what one file holds has to be in the others, cut or not.
TEST_F(OutputsTest, TheFilesOfACutRecordingHoldTogetherWhatOneFileWould) {
  AddChannels({"aac", "ac3", "mp2"}, ".ts");
  struct Case {
    const char* extension;
    const char* codec;
    host::Time segment;
    std::int64_t bytes;
    std::size_t least;  // files
  };
  const Case cases[] = {{".mkv", "h264", 2 * kSecond, 0, 3},
                        {".mp4", "h264", 2 * kSecond, 0, 3},
                        {".ts", "h264", 0, 60'000, 3},
                        {".mkv", "hevc", kSecond, 0, 6}};
  std::vector<host::config::Output> outputs;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const std::string name = "whole" + std::to_string(i) + cases[i].extension;
    for (const bool isCut : {false, true}) {
      outputs.push_back(To(folder_ / ((isCut ? "cut" : "") + name)));
      outputs.back().codec = cases[i].codec;
      outputs.back().preset = "veryfast";  // with B-frames
      outputs.back().segment = isCut ? cases[i].segment : 0;
      outputs.back().segmentSize = isCut ? cases[i].bytes : 0;
    }
  }
  for (const host::OutputSet::Status& status : wall_.RenderInto(outputs)) {
    ASSERT_EQ(status.failure, "");
  }
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(outputs[2 * i + 1].url);
    const e2e::Demuxed whole = e2e::Demux(outputs[2 * i].url);
    e2e::Demuxed joined(whole.size());
    std::size_t files = 0;
    std::filesystem::path file = outputs[2 * i + 1].url;
    const std::string stem = file.stem().string();
    for (; std::filesystem::exists(file); ++files) {
      if (files == 1) {
        EXPECT_EQ(e2e::DecodeWhole(file), "");
      }
      if (cases[i].bytes > 0) {
        EXPECT_LT(std::filesystem::file_size(file),
                  2 * static_cast<std::uintmax_t>(cases[i].bytes));
      }
      const e2e::Demuxed part = e2e::Demux(file);
      ASSERT_EQ(part.size(), whole.size());
      // Each file has its own time 0; a container may add what it needs for the reordering.
      const host::Time offset = whole[0][joined[0].size()].time - part[0][0].time;
      for (std::size_t track = 0; track < part.size(); ++track) {
        for (const e2e::RawPacket& packet : part[track]) {
          joined[track].push_back({packet.time + offset, packet.bytes});
        }
      }
      EXPECT_LT(part[0][0].time, 2 * kSecond);
      file.replace_filename(stem + "-" + std::to_string(files + 2) + cases[i].extension);
    }
    EXPECT_GE(files, cases[i].least);
    for (std::size_t track = 0; track < whole.size(); ++track) {
      SCOPED_TRACE(track);
      ASSERT_EQ(joined[track].size(), whole[track].size());
      for (std::size_t k = 0; k < whole[track].size(); ++k) {
        ASSERT_EQ(joined[track][k].bytes, whole[track][k].bytes) << k;
        ASSERT_NEAR(joined[track][k].time, whole[track][k].time, 2 * host::kMillisecond) << k;
      }
    }
  }
}

TEST_F(OutputsTest, AFailedOutputOfARenderingEndsAndTheOthersAreWhole) {
  AddChannels({"aac", "aac"});
  const auto status =
      wall_.RenderInto({To(folder_ / "no/folder.mkv"), To(folder_ / "wall.mkv")}, 2 * kSecond);
  EXPECT_TRUE(status[0].failed);
  EXPECT_THAT(status[0].failure, HasSubstr("No such file or directory"));
  EXPECT_FALSE(status[1].failed);
  EXPECT_EQ(status[1].video.written, 50U);
}

TEST_F(OutputsTest, AChannelThatIsNotThereAtTheStartGetsATrackAndIsEncodedIntoIt) {
  AddChannels({"aac", "aac"});
  const std::filesystem::path late = folder_ / "late.mkv";
  wall_.AddChannel(late.string(), {80, 0, 32, 32});
  wall_.wall().channels[2].options.audio.language = "deu";
  wall_.wall().outputs = {To(folder_ / "wall.mkv")};
  bool made = false;
  std::uint64_t writtenThen = 0;
  const auto wasWritten = [&](host::OutputSet& set) {
    // The output has begun without it.
    if (!made && set.status()[0].video.written > 0) {
      e2e::FlashClip clip;
      clip.codec = "ac3";
      e2e::WriteFlashClip(clip, folder_ / "written.mkv");
      std::filesystem::rename(folder_ / "written.mkv", late);
      made = true;
    }
    if (writtenThen == 0 && wall_.channels().Opened("late")) {
      writtenThen = set.status()[0].video.written;
    }
    return writtenThen > 0 && set.status()[0].video.written > writtenThen + 75;
  };
  RunLiveUntil(wall_, wall_.SessionSettings(), "three seconds were written since the channel came",
               wasWritten);
  EXPECT_EQ(e2e::DecodeWhole(folder_ / "wall.mkv"), "");
  EXPECT_GT(e2e::ReadPackets(folder_ / "wall.mkv", 3).size(), 20U);
  EXPECT_THAT(wall_.channels().AudioPaths("late"),
              testing::Contains(HasSubstr("(ac3, 48000 Hz, 1 channel) is encoded for the outputs "
                                          "(aac, 48000 Hz, 2 channels)")));
  const auto tracks = host::Opened(host::Source(folder_ / "wall.mkv"))->info().audioTracks;
  ASSERT_EQ(tracks.size(), 3U);
  EXPECT_EQ(tracks[2].title, "late");
  EXPECT_EQ(tracks[2].language, "deu");
}

}  // namespace
