#include <cerrno>
#include <condition_variable>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/wall_harness.h"

namespace {

using e2e::TestWall;
using host::kSecond;

// Counts composed frames and lets the test wait for one.
class FrameCounter {
 public:
  void Take(host::Time time) {
    const std::lock_guard guard(lock_);
    inOrder_ = inOrder_ && time > last_;
    first_ = count_ == 0 ? time : first_;
    last_ = time;
    ++count_;
    arrived_.notify_all();
  }
  bool WaitFor(host::Time time, std::chrono::seconds limit = std::chrono::seconds(60)) {
    std::unique_lock guard(lock_);
    return arrived_.wait_for(guard, limit, [&] { return last_ >= time; });
  }
  std::uint64_t count() const {
    const std::lock_guard guard(lock_);
    return count_;
  }
  // Ticks of the clock from the first frame to the last, at 25 frames per second.
  std::uint64_t ticks() const {
    const std::lock_guard guard(lock_);
    return static_cast<std::uint64_t>((last_ - first_) / 400000 + 1);
  }
  bool inOrder() const {
    const std::lock_guard guard(lock_);
    return inOrder_;
  }

 private:
  mutable std::mutex lock_;
  std::condition_variable arrived_;
  host::Time first_ = 0;
  host::Time last_ = -1;
  std::uint64_t count_ = 0;
  bool inOrder_ = true;
};

// A pipe into which a file is written whole, and which then stays open and silent.
class SilentPipe {
 public:
  SilentPipe(const std::filesystem::path& path, const std::filesystem::path& content) {
    if (mkfifo(path.c_str(), 0600) != 0 && errno != EEXIST) {
      ADD_FAILURE() << "no pipe at " << path;
    }
    descriptor_ = open(path.c_str(), O_RDWR);
    writer_ = std::thread([this, content] {
      std::ifstream file(content, std::ios::binary);
      char block[4096];
      while (file.read(block, sizeof(block)) || file.gcount() > 0) {
        for (std::streamsize done = 0; done < file.gcount();) {
          const ssize_t put =
              write(descriptor_, block + done, static_cast<std::size_t>(file.gcount() - done));
          if (put <= 0) {
            return;
          }
          done += put;
        }
      }
    });
  }
  ~SilentPipe() {
    writer_.join();
    close(descriptor_);
  }
  SilentPipe(const SilentPipe&) = delete;
  SilentPipe& operator=(const SilentPipe&) = delete;

 private:
  int descriptor_ = -1;
  std::thread writer_;
};

class LiveTest : public e2e::WallTest {
 protected:
  std::string Clip(const std::string& name, int pictures) {
    const std::filesystem::path file = folder_ / name;
    e2e::WriteCountingClip(file, 64, 48, "25", pictures, "sine=440:d=1");
    return file.string();
  }

  TestWall wall_{320, 240};
  FrameCounter frames_;
};

TEST_F(LiveTest, OneStalledChannelTakesNoFrameFromTheWall) {
  const std::filesystem::path pipe = folder_ / "pipe.ts";
  const SilentPipe silent(pipe, Clip("start.ts", 25));
  wall_.AddChannel(pipe.string(), {0, 0, 64, 48});
  wall_.wall().channels[0].options.readLimit = 3600 * kSecond;  // nobody gives up on it
  for (int i = 0; i < 3; ++i) {
    wall_.AddChannel(Clip("alive" + std::to_string(i) + ".mkv", 25), {100 + 70 * i, 0, 64, 48});
  }
  const auto session =
      wall_.MakeLive([&](const ComPtr<IMediaSample>&, host::Time time) { frames_.Take(time); });
  session->Start();
  ASSERT_TRUE(frames_.WaitFor(4 * kSecond)) << "the wall stopped";
  session->Stop();
  const host::WallSession::Counters counters = session->counters();
  EXPECT_TRUE(frames_.inOrder());
  EXPECT_EQ(counters.starved, 0U) << "no frame waits for a channel";
  EXPECT_EQ(wall_.logger().BufferFull().at("background"), 0);
  EXPECT_EQ(wall_.logger().BufferFull().count(wall_.wall().channels[3].name + " video"), 1U);
  // Every tick of the clock gave a frame or was counted as late (a busy machine).
  EXPECT_GE(frames_.count() + counters.late, frames_.ticks());
  EXPECT_LE(counters.sent - counters.composed, 1U);
  EXPECT_EQ(frames_.count(), counters.composed);
}

// A pipe that its writer closes: an end of the source, after which it is opened again.
TEST_F(LiveTest, AChannelIsLostUntilItsSourceIsThereAndHeldWhenItGoes) {
  const std::string clip = Clip("clip.ts", 25);
  const std::filesystem::path pipe = folder_ / "pipe.ts";
  wall_.AddChannel(pipe.string(), {0, 0, 64, 48});
  wall_.AddChannel(Clip("alive.mkv", 25), {100, 0, 64, 48});
  const auto session =
      wall_.MakeLive([&](const ComPtr<IMediaSample>&, host::Time time) { frames_.Take(time); });
  session->Start();
  ASSERT_TRUE(wall_.channels().WaitForState("pipe", 1, "lost: no such file"));
  {
    const SilentPipe source(pipe, clip);
    ASSERT_TRUE(wall_.channels().WaitForState("pipe", 2, "live"));
  }
  EXPECT_TRUE(wall_.channels().WaitForState("pipe", 3, "held: ended") ||
              wall_.channels().States("pipe").size() > 3);
  const SilentPipe again(pipe, clip);
  EXPECT_TRUE(wall_.channels().WaitForState("pipe", 4, "live"));
  session->Stop();
  EXPECT_THAT(wall_.channels().States("alive"), testing::ElementsAre("live"));
  EXPECT_GE(frames_.count() + session->counters().late + session->counters().starved,
            frames_.ticks());
}

TEST_F(LiveTest, StartsAndStopsAHundredTimesWithNineChannels) {
  for (int i = 0; i < 9; ++i) {
    wall_.AddChannel(Clip("clip" + std::to_string(i) + ".mkv", 25),
                     {(i % 3) * 100, (i / 3) * 80, 64, 48});
  }
  const auto session =
      wall_.MakeLive([&](const ComPtr<IMediaSample>&, host::Time time) { frames_.Take(time); });
  for (int i = 0; i < 100; ++i) {
    session->Start();
    if (i % 20 == 0) {
      ASSERT_TRUE(frames_.WaitFor(session->now() + kSecond / 10)) << "cycle " << i;
    }
    session->Stop();
  }
}

}  // namespace
