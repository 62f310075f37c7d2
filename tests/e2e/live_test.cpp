#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/wall_harness.h"
#include "tests/support/pipe.h"
#include "tests/support/wait_until.h"

namespace {

using e2e::TestWall;
using host::kSecond;

class LiveTest : public e2e::WallTest {
 protected:
  std::string Clip(const std::string& name, int pictures) {
    const std::filesystem::path file = folder_ / name;
    e2e::WriteCountingClip(file, 64, 48, "25", pictures, "sine=440:d=1");
    return file.string();
  }

  TestWall wall_{320, 240};
  e2e::FrameCounter frames_;
};

TEST_F(LiveTest, OneStalledChannelTakesNoFrameFromTheWall) {
  const std::filesystem::path pipe = folder_ / "pipe.ts";
  Pipe silent(pipe);
  silent.Open();
  silent.Write(ReadWholeFile(Clip("start.ts", 25)));  // and nothing more
  wall_.AddChannel(pipe.string(), {0, 0, 64, 48});
  wall_.wall().channels[0].options.readLimit = 3600 * kSecond;  // reading never times out
  for (int i = 0; i < 3; ++i) {
    wall_.AddChannel(Clip("alive" + std::to_string(i) + ".mkv", 25), {100 + 70 * i, 0, 64, 48});
  }
  const auto session = wall_.MakeLive(frames_);
  session->Start();
  ASSERT_TRUE(WaitUntil("four seconds", [&] { return frames_.last >= 4 * kSecond; }));
  session->Stop();
  const host::WallSession::Counters counters = session->counters();
  EXPECT_TRUE(frames_.inOrder.load());
  EXPECT_EQ(counters.noFreeBuffer, 0U) << "no frame waits for a channel";
  EXPECT_EQ(wall_.logger().BufferFull().at("background"), 0);
  EXPECT_EQ(wall_.logger().BufferFull().count(wall_.wall().channels[3].name + " video"), 1U);
  // Every tick of the clock gave a frame or was counted as late (a busy machine).
  EXPECT_GE(frames_.count + counters.late, frames_.ticks());
  EXPECT_LE(counters.sent - counters.composed, 1U);
  EXPECT_EQ(frames_.count.load(), counters.composed);
}

TEST_F(LiveTest, StartsAndStopsAHundredTimesWithNineChannels) {
  for (int i = 0; i < 9; ++i) {
    wall_.AddChannel(Clip("clip" + std::to_string(i) + ".mkv", 25),
                     {(i % 3) * 100, (i / 3) * 80, 64, 48});
  }
  const auto session = wall_.MakeLive(frames_);
  for (int i = 0; i < 100; ++i) {
    session->Start();
    if (i % 20 == 0) {
      const host::Time soon = session->now() + kSecond / 10;
      ASSERT_TRUE(WaitUntil("a cycle", [&] { return frames_.last >= soon; })) << i;
    }
    session->Stop();
  }
}

}  // namespace
