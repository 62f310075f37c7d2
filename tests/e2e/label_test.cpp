#include <algorithm>
#include <fstream>
#include <mutex>

#include <gtest/gtest.h>

#include "host/cli/demo/clip_writer.h"
#include "tests/e2e/wall_harness.h"
#include "tests/support/wait_until.h"

namespace {

using e2e::TestWall;
using host::kSecond;
using Source = host::config::Label::Source;

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr host::config::Window kWindow{20, 10, 200, 100};
// Labels of this canvas have 8 points.
constexpr int kLabelTop = 10 + 100 + 2;
constexpr int kLabelRows = 32;

using Rows = std::vector<std::uint8_t>;

// The luma of the canvas's rows with the label.
Rows LabelRows(const std::uint8_t* pixels) {
  return {pixels + kLabelTop * kWidth, pixels + (kLabelTop + kLabelRows) * kWidth};
}

class LabelTest : public e2e::WallTest {
 protected:
  void SetUp() override {
    host::ClipRecipe recipe;
    recipe.name = "Erste Ö";
    recipe.pictures = "testsrc2=size=200x100:rate=25,format=yuv420p";
    recipe.extension = ".ts";
    recipe.length = kSecond;
    host::WriteClip(recipe, clip_);
  }
  void AddChannel(TestWall& wall, const host::config::Label& label) {
    wall.AddChannel(clip_.string(), kWindow);
    wall.wall().channels[0].label = label;
  }
  // A frame in the middle of the clip.
  std::vector<std::uint8_t> FrameOf(const host::config::Label& label) {
    TestWall wall(kWidth, kHeight);
    AddChannel(wall, label);
    return wall.Render().at(20).pixels;
  }
  Rows RowsOf(const std::string& text) {
    return LabelRows(FrameOf({Source::kText, text, {}}).data());
  }

  std::filesystem::path clip_ = folder_ / "clip.ts";
};

TEST_F(LabelTest, ShowsTheTextOfTheWallOfAFileAndOfTheService) {
  const std::filesystem::path file = folder_ / "label.txt";
  std::ofstream(file) << "Erste Ö\n";
  const std::vector<std::uint8_t> byText = FrameOf({Source::kText, "Erste Ö", {}});
  EXPECT_EQ(FrameOf({Source::kFile, "the name", file}), byText);
  EXPECT_EQ(FrameOf({Source::kService, "the name", {}}), byText);
  EXPECT_EQ(FrameOf({Source::kFile, "Erste Ö", folder_ / "missing.txt"}), byText)
      << "the name stands in for a file that is not there";

  const std::vector<std::uint8_t> none = FrameOf({Source::kNone, "the name", {}});
  EXPECT_NE(LabelRows(none.data()), LabelRows(byText.data()));
  // Windows and everything above the label are the same.
  EXPECT_TRUE(std::equal(none.begin(), none.begin() + kLabelTop * kWidth, byText.begin()));
}

TEST_F(LabelTest, FollowsAFileThatChangesWhileTheWallRuns) {
  const Rows first = RowsOf("Morgen");
  const Rows second = RowsOf("Abend");
  ASSERT_NE(first, second);

  const std::filesystem::path file = folder_ / "label.txt";
  std::ofstream(file) << "Morgen";
  std::mutex lock;
  Rows shown;
  TestWall wall(kWidth, kHeight);
  AddChannel(wall, {Source::kFile, "the name", file});
  const auto session = wall.MakeLive([&](const ComPtr<IMediaSample>& sample, host::Time) {
    BYTE* pixels = nullptr;
    sample->GetPointer(&pixels);
    const std::lock_guard guard(lock);
    shown = LabelRows(pixels);
  });
  const auto isShown = [&](const Rows& rows) {
    const std::lock_guard guard(lock);
    return shown == rows;
  };
  session->Start();
  WaitUntil("the first text is shown", [&] { return isShown(first); });
  std::ofstream(file) << "Abend\n";
  WaitUntil("the label follows its file", [&] { return isShown(second); });
  session->Stop();
}

}  // namespace
