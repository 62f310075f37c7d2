#include <set>

extern "C" {
#include <libavutil/frame.h>
}

#include <gtest/gtest.h>

#include "host/ffmpeg/error.h"
#include "tests/host/clips.h"
#include "tests/support/temporary_folder.h"

namespace host {
namespace {

TEST(BuiltInChannels, AreAtLeastNineRealSourcesThatDifferAndCoverTheHardCases) {
  const TemporaryFolder folder;
  const auto recipes = BuiltInChannels(kSecond / 2);
  ASSERT_GE(recipes.size(), 9U);
  const auto files = WriteClips(recipes, folder.Path());
  std::set<std::string> names;
  std::set<std::string> pictures;
  std::set<std::string> audioCodecs;
  bool interlaced = false;
  bool manyChannels = false;
  for (std::size_t i = 0; i < files.size(); ++i) {
    MediaReader reader(Source(files[i]));
    reader.Open();
    EXPECT_EQ(reader.info().serviceName, recipes[i].name);
    ASSERT_TRUE(reader.info().video) << files[i];
    ASSERT_TRUE(reader.info().audio) << files[i];
    audioCodecs.insert(reader.info().audio->codec);
    manyChannels = manyChannels || reader.info().audio->channels == 6;
    const Content content = ReadAll(reader);
    EXPECT_GE(content.pictures.size(), 11U) << files[i];
    EXPECT_FALSE(content.samples.empty()) << files[i];
    interlaced = interlaced || content.pictures.at(0).frame->interlaced_frame != 0;
    names.insert(recipes[i].name);
    pictures.insert(recipes[i].pictures);
  }
  EXPECT_EQ(names.size(), files.size());
  EXPECT_EQ(pictures.size(), files.size());
  EXPECT_GE(audioCodecs.size(), 4U);
  EXPECT_TRUE(interlaced);
  EXPECT_TRUE(manyChannels);
}

TEST(ClipWriter, SaysWhatIsWrongWithARecipe) {
  const TemporaryFolder folder;
  ClipRecipe recipe = SmallClip();
  recipe.pictures = "nosuchfilter=1";
  EXPECT_THROW(WriteClip(recipe, folder / "a.mkv"), ffmpeg::Error);
  recipe.pictures = "null";  // wants an input
  EXPECT_THROW(WriteClip(recipe, folder / "a.mkv"), ffmpeg::Error);
  EXPECT_THROW(WriteClips({SmallClip(), recipe}, folder.Path()), ffmpeg::Error);
}

}  // namespace
}  // namespace host
