#include "host/session/label_files.h"

#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/temporary_folder.h"

namespace {

class LabelFileTest : public testing::Test {
 protected:
  void Write(const std::string& text) { std::ofstream(path_, std::ios::binary) << text; }

  TemporaryFolder folder_;
  std::filesystem::path path_ = folder_.Path() / "label.txt";
  host::LabelFile file_{path_};
};

TEST_F(LabelFileTest, GivesEachTextOnceItStands) {
  EXPECT_EQ(file_.Look(), std::nullopt) << "there is no file yet";
  Write("\xEF\xBB\xBFNews\nat ten \r\n\n");
  EXPECT_EQ(file_.Look(), std::nullopt) << "it may still be written";
  EXPECT_EQ(file_.Look(), "News\nat ten");
  EXPECT_EQ(file_.Look(), std::nullopt);
  Write("");
  EXPECT_EQ(file_.Look(), std::nullopt) << "emptied, to be written again";
  Write(std::string(10 * host::LabelFile::kMax, 'x'));
  EXPECT_EQ(file_.Look(), std::nullopt);
  EXPECT_EQ(file_.Look()->size(), host::LabelFile::kMax);
  std::filesystem::remove(path_);
  EXPECT_EQ(file_.Look(), std::nullopt);
  EXPECT_EQ(file_.Look(), std::nullopt) << "the last text stays";
  Write("  ");
  file_.Look();
  EXPECT_EQ(file_.Look(), "") << "no label";
}

}  // namespace
