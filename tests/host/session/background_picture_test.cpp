#include "host/session/background_picture.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/clips.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 180;

TEST(BackgroundPicture, CoversTheCanvasWithAFileOfAnyShape) {
  const TemporaryFolder folder;
  for (const char* const shape :
       {"1:1", "1:6000", "30000:1", "3:2", "333:217", "2:16000", "40:30,setsar=10000",
        "30:40,setsar=1/10000", "65000:2,format=pal8", "51:33,format=monob"}) {
    ClipRecipe recipe = SmallClip();
    recipe.audio.clear();
    recipe.pictures = "color=white:size=64x64:rate=1,format=rgb24,scale=" + std::string(shape);
    recipe.videoCodec = "png";
    const auto picture =
        FileBackground(kWidth, kHeight, {1, 1}, Write(recipe, folder / "picture.nut"));
    ASSERT_EQ(picture.size(), static_cast<std::size_t>(kWidth * kHeight * 3 / 2));
    const auto luma = std::minmax_element(picture.begin(), picture.begin() + kWidth * kHeight);
    EXPECT_GE(*luma.first, 230) << shape;
    EXPECT_LE(*luma.second, 237) << shape;
  }
  WriteWholeFile(folder / "notes.png", "no picture");
  try {
    FileBackground(kWidth, kHeight, {1, 1}, folder / "notes.png");
    FAIL() << "a text is no picture";
  } catch (const MediaError& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("notes.png"));
  }
}

}  // namespace
}  // namespace host
