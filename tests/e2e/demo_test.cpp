#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/synthetic/clip_writer.h"
#include "tests/e2e/wall_harness.h"

namespace {

using host::kSecond;

TEST(Demo, OneAlarmComesAndGoesInTheMeterOfTheAlarmChannel) {
  const TemporaryFolder folder;
  std::vector<host::ClipRecipe> recipes = host::BuiltInChannels(10 * kSecond);
  const auto recipe = std::find_if(recipes.begin(), recipes.end(),
                                   [](const auto& entry) { return entry.name == "Spectrum"; });
  ASSERT_NE(recipe, recipes.end());
  const std::filesystem::path clip = folder / "alarm.mkv";
  host::WriteClip(*recipe, clip);
  e2e::TestWall wall(320, 240);
  wall.AddChannel(clip.string(), {0, 0, 160, 90});
  wall.wall().channels[0].options.audio.meter = true;
  wall.wall().channels[0].options.alarm.silence = {true, -60, kSecond, kSecond / 2};
  const std::vector<e2e::Frame> frames = wall.Render(10 * kSecond);
  EXPECT_THAT(wall.channels().Alarms("alarm"), testing::ElementsAre("silence on", "silence off"));
  // The box is 8x4 pixels at (4, 3) of the panel.
  const auto box = [&](double seconds) {
    return wall.Luma(frames.at(static_cast<std::size_t>(seconds * 25)), 7, 4) == 76;
  };
  EXPECT_FALSE(box(3.5));
  EXPECT_TRUE(box(6.5)) << "the moment of the demo's picture";
  EXPECT_FALSE(box(9.5));
}

}  // namespace
