#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/session/background.h"
#include "host/session/label_files.h"
#include "host/session/wall_clock.h"
#include "tests/host/clips.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/wait_until.h"

namespace host {
namespace {

TEST(BackgroundPicture, CoversTheCanvasWithAFileOfAnyShape) {
  constexpr std::size_t kPixels = std::size_t{320} * 180;
  const TemporaryFolder folder;
  for (const char* const shape :
       {"1:1", "1:6000", "30000:1", "3:2", "333:217", "2:16000", "40:30,setsar=10000",
        "30:40,setsar=1/10000", "65000:2,format=pal8", "51:33,format=monob"}) {
    ClipRecipe recipe = SmallClip();
    recipe.audio.clear();
    recipe.pictures = "color=white:size=64x64:rate=1,format=rgb24,scale=" + std::string(shape);
    recipe.videoCodec = "png";
    const auto picture = FileBackground(320, 180, {1, 1}, Write(recipe, folder / "picture.nut"));
    ASSERT_EQ(picture.size(), kPixels * 3 / 2);
    const auto luma = std::minmax_element(picture.begin(), picture.begin() + kPixels);
    EXPECT_TRUE(*luma.first >= 230 && *luma.second <= 237) << shape;
  }
  WriteWholeFile(folder / "notes.png", "no picture");
  EXPECT_THAT(
      [&] {
        FileBackground(320, 180, {1, 1}, folder / "notes.png");
      },
      testing::ThrowsMessage<MediaError>(testing::HasSubstr("notes.png")));
}

TEST(LabelFile, GivesEachTextOnceItIsStable) {
  const TemporaryFolder folder;
  LabelFile file(folder / "label.txt");
  // The result of the second look: at the first one the text may be incomplete.
  const auto look = [&](const std::string& text) {
    WriteWholeFile(folder / "label.txt", text);
    EXPECT_EQ(file.Look(), std::nullopt) << text;
    return file.Look();
  };
  EXPECT_EQ(file.Look(), std::nullopt) << "there is no file yet";
  EXPECT_EQ(look("\xEF\xBB\xBFNews\nat ten \r\n\n"), "News\nat ten");
  EXPECT_EQ(file.Look(), std::nullopt);
  WriteWholeFile(folder / "label.txt", "");
  EXPECT_EQ(file.Look(), std::nullopt) << "emptied, to be written again";
  EXPECT_EQ(look(std::string(10 * LabelFile::kMax, 'x')), std::string(LabelFile::kMax, 'x'));
  std::filesystem::remove(folder / "label.txt");
  EXPECT_EQ(file.Look(), std::nullopt);
  EXPECT_EQ(file.Look(), std::nullopt) << "the last text stays";
  EXPECT_EQ(look("  "), "") << "no label";
}

TEST(TimeOfDay, FollowsTheTimeOfDayAndTellsAnotherDay) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  // 2026-11-16 at 23:59:00 UTC and some seconds more.
  const auto at = [](double seconds) {
    return TimeOfDay::SystemTime(
        std::chrono::milliseconds(1'794'873'540'000 + static_cast<std::int64_t>(seconds * 1000)));
  };
  TimeOfDay clock;
  EXPECT_EQ(clock.Text(0, 0, at(30)), "23:59:30");
  EXPECT_EQ(clock.Text(0, 10 * kSecond, at(39.9)), "23:59:30") << "no flicker";
  EXPECT_EQ(clock.Text(0, 40 * kSecond, at(70)), "Nov 16 23:59:30");
  EXPECT_EQ(clock.Text(39 * kSecond, 40 * kSecond, at(70)), "00:00:09");
  // The time of day was set back; then the machine was suspended for an hour.
  EXPECT_EQ(clock.Text(39 * kSecond, 40 * kSecond, at(20)), "23:59:19");
  EXPECT_EQ(clock.Text(39 * kSecond, 40 * kSecond, at(3670)), "01:00:09");
}

TEST(WallClock, StandsStillWhileItIsStoppedAndEndsAWaitForATimeThatDoesNotCome) {
  std::atomic<Time> raw{500 * kSecond};
  std::atomic<int> reads{0};
  WallClock clock([&] { return ++reads, raw.load(); }, 0);
  raw += kSecond;
  clock.Start();
  EXPECT_EQ(clock.Now(), 0);
  raw += 3 * kSecond;
  EXPECT_EQ(clock.Now(), 3 * kSecond);
  reads = 0;
  std::thread waiter([&] { EXPECT_FALSE(clock.WaitUntil(60 * kSecond)); });
  WaitUntil("the wait has begun", [&] { return reads > 0; });
  clock.Stop();
  waiter.join();
  raw += 10 * kSecond;
  EXPECT_EQ(clock.Now(), 3 * kSecond);
  EXPECT_FALSE(clock.WaitUntil(0));
  clock.Start();
  raw += kSecond;
  EXPECT_EQ(clock.Now(), 4 * kSecond);
  EXPECT_TRUE(clock.WaitUntil(4 * kSecond)) << "that time has come";
  WallClock fast([&] { return raw.load(); }, 100);
  fast.Start();
  raw += 10 * kSecond;
  EXPECT_EQ(fast.Now(), 100'010'000);
}

}  // namespace
}  // namespace host
