#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/sound_harness.h"
#include "tests/e2e/wall_harness.h"

namespace {

using host::kSecond;
using testing::HasSubstr;

host::wall::Output To(const std::filesystem::path& file) {
  host::wall::Output output;
  output.url = file.string();
  output.preset = "ultrafast";
  output.keyFrameInterval = kSecond / 2;
  return output;
}

// A pipe that is open for reading and never read.
class UnreadPipe {
 public:
  explicit UnreadPipe(const std::filesystem::path& path) {
    if (mkfifo(path.c_str(), 0600) != 0) {
      ADD_FAILURE() << "no pipe at " << path;
    }
    descriptor_ = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  }
  ~UnreadPipe() { close(descriptor_); }
  UnreadPipe(const UnreadPipe&) = delete;
  UnreadPipe& operator=(const UnreadPipe&) = delete;

 private:
  int descriptor_ = -1;
};

class OutputsTest : public e2e::WallTest {
 protected:
  void AddChannels(int count) {
    for (int i = 0; i < count; ++i) {
      const std::filesystem::path file = folder_ / ("clip" + std::to_string(i) + ".mkv");
      e2e::WriteFlashClip({}, file);
      wall_.AddChannel(file.string(), {i * 40, 0, 32, 32});
    }
  }
  void RunLiveUntil(const host::OutputSet::Settings& settings, host::OutputSet& set,
                    const std::string& what, const std::function<bool()>& isSo) {
    composed_ = WallTest::RunLiveUntil(wall_, settings, set, what, isSo);
  }
  int BufferFullReports(const std::string& pin) { return wall_.logger().BufferFull()[pin]; }

  e2e::TestWall wall_{160, 32};
  std::uint64_t composed_ = 0;
};

TEST_F(OutputsTest, AConsumerThatStopsReadingTakesNothingFromTheOthers) {
  AddChannels(3);
  const UnreadPipe pipe(folder_ / "unread.ts");
  host::OutputSet::Settings settings = host::OutputsOfWall(
      wall_.wall(), {To(folder_ / "unread.ts"), To(folder_ / "wall.mkv")}, true);
  settings.queue.bytes = 50'000;
  settings.finishLimit = std::chrono::milliseconds(200);
  host::OutputSet set(settings, &wall_.outputs(), &wall_.logger());
  std::size_t mostBytes = 0;
  RunLiveUntil(settings, set, "the unread output has dropped pictures three times", [&] {
    mostBytes = std::max(mostBytes, set.queuedBytes());
    return set.status()[0].overflows >= 3;
  });

  const std::vector<host::OutputSet::Status> status = set.status();
  EXPECT_EQ(status[1].overflows, 0U);
  EXPECT_GE(BufferFullReports("output 1"), 3);
  EXPECT_EQ(BufferFullReports("output 2"), 0);
  // A queue is full once it has reached its limit: one picture more is in it.
  EXPECT_LT(mostBytes, 2 * 50'000U);
  // Full rate: every picture that was composed and for which the encoder had time.
  EXPECT_EQ(status[1].written + status[1].dropped, composed_);
  EXPECT_EQ(status[1].failure, "");
  EXPECT_EQ(e2e::DecodeWhole(folder_ / "wall.mkv"), "");
  // 25 pictures and nearly 47 packets of sound in a second; the sound begins later.
  EXPECT_GT(2 * e2e::ReadPackets(folder_ / "wall.mkv", 3).size(), status[1].written * 47 / 25);
}

TEST_F(OutputsTest, AnOutputThatFailsIsOpenedAgainAndDisturbsNobody) {
  AddChannels(2);
  // The folder comes later.
  const std::filesystem::path late = folder_ / "late";
  host::OutputSet::Settings settings = host::OutputsOfWall(
      wall_.wall(), {To(late / "wall.ts"), To(folder_ / "wall.mkv"), To(folder_ / "wall.nonsense")},
      true);
  host::OutputSet set(settings, &wall_.outputs(), &wall_.logger());
  bool made = false;
  RunLiveUntil(settings, set, "the late output has written two seconds", [&] {
    if (!made && set.status()[1].written > 10) {
      made = std::filesystem::create_directory(late);
    }
    return set.status()[0].written > 50;
  });
  const std::vector<host::OutputSet::Status> status = set.status();
  EXPECT_EQ(status[0].failure, "");
  EXPECT_EQ(wall_.outputs().recoveries(), 1);
  EXPECT_EQ(e2e::DecodeWhole(late / "wall.ts"), "");
  EXPECT_GT(e2e::ReadPackets(late / "wall.ts", 2).size(), 20U);
  EXPECT_EQ(status[1].written + status[1].dropped, composed_);
  EXPECT_TRUE(status[2].failed) << "no such container: it is not tried again";
  EXPECT_THAT(wall_.outputs().failures(),
              testing::Contains(HasSubstr("No such file or directory")));
}

TEST_F(OutputsTest, AFailedOutputOfARenderingEndsAndTheOthersAreWhole) {
  AddChannels(2);
  const auto status =
      wall_.RenderInto({To(folder_ / "no/folder.mkv"), To(folder_ / "wall.mkv")}, 2 * kSecond);
  EXPECT_TRUE(status[0].failed);
  EXPECT_THAT(status[0].failure, HasSubstr("No such file or directory"));
  EXPECT_FALSE(status[1].failed);
  EXPECT_EQ(status[1].written, 50U);
}

TEST_F(OutputsTest, AChannelThatIsNotThereAtTheStartGetsATrackAndIsEncodedIntoIt) {
  AddChannels(2);
  const std::filesystem::path late = folder_ / "late.mkv";
  wall_.AddChannel(late.string(), {80, 0, 32, 32});
  wall_.wall().channels[2].options.audio.language = "deu";
  host::OutputSet::Settings settings =
      host::OutputsOfWall(wall_.wall(), {To(folder_ / "wall.mkv")}, true);
  host::OutputSet set(settings, &wall_.outputs(), &wall_.logger());
  bool made = false;
  std::uint64_t writtenThen = 0;
  RunLiveUntil(settings, set, "three seconds were written since the channel came", [&] {
    // The output has begun without it.
    if (!made && set.status()[0].written > 0) {
      e2e::FlashClip clip;
      clip.codec = "ac3";
      e2e::WriteFlashClip(clip, folder_ / "written.mkv");
      std::filesystem::rename(folder_ / "written.mkv", late);
      made = true;
    }
    if (writtenThen == 0 && wall_.channels().Opened("late")) {
      writtenThen = set.status()[0].written;
    }
    return writtenThen > 0 && set.status()[0].written > writtenThen + 75;
  });
  EXPECT_EQ(e2e::DecodeWhole(folder_ / "wall.mkv"), "");
  const auto packets = e2e::ReadPackets(folder_ / "wall.mkv", 3);
  EXPECT_GT(packets.size(), 20U);
  EXPECT_THAT(wall_.channels().Sound("late"),
              testing::Contains(HasSubstr("(ac3, 48000 Hz, 1 channel) is encoded for the outputs "
                                          "(aac, 48000 Hz, 2 channels)")));
  host::MediaReader::Settings reading;
  reading.source = (folder_ / "wall.mkv").string();
  host::MediaReader reader(reading);
  reader.Open();
  ASSERT_EQ(reader.info().audioTracks.size(), 3U);
  EXPECT_EQ(reader.info().audioTracks[2].title, "late");
  EXPECT_EQ(reader.info().audioTracks[2].language, "deu");
}

}  // namespace
