// Fonts: the private one, and painters that share what they have loaded.
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "picture.h"
#include "platform/os/process.h"
#include "platform/text/text_painter.h"
#include "tests/support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using os::TextPainter;

// The current directory, empty and of this test only.
class PrivateFontTest : public testing::Test {
 protected:
  PrivateFontTest() : before_(fs::current_path()) { fs::current_path(folder_.Path()); }
  ~PrivateFontTest() override { fs::current_path(before_); }

  // The label font under a family name that no installed font has.
  static std::string RenamedFont() {
    std::string font = ReadWholeFile(TAVREL_LABEL_FONT);
    const std::string from = "DejaVu Sans Mono";
    const std::string to = "Tavrel TestsMono";
    const auto replace = [&font](const std::string& a, const std::string& b) {
      for (std::size_t at = font.find(a); at != std::string::npos; at = font.find(a, at + 1)) {
        font.replace(at, a.size(), b);
      }
    };
    const auto wide = [](const std::string& text) {
      std::string units;
      for (const char c : text) {
        units += {'\0', c};
      }
      return units;
    };
    replace(from, to);
    replace(wide(from), wide(to));
    return font;
  }

 private:
  fs::path before_;
  const TemporaryFolder folder_;
};

TEST_F(PrivateFontTest, AnAliasOrANearMatchOrADamagedFileIsPassedOver) {
  for (const std::string& damaged : {std::string(), std::string("not a font at all"),
                                     ReadWholeFile(TAVREL_LABEL_FONT).substr(0, 5000)}) {
    WriteWholeFile("Lucon.ttf", damaged);
    TextPainter painter("Lucon.ttf");
    for (const std::u16string_view family :
         {u"Sans", u"monospace", u"No such family", u"Noto San", u""}) {
      EXPECT_TRUE(painter.SetFont(u"Noto Serif", 16));
      EXPECT_TRUE(painter.SetFont(family, 16));
      EXPECT_EQ(painter.FontFamily(), "DejaVu Sans Mono");
    }
    EXPECT_FALSE(PaintLine(painter, u"Lucon").Bounds().Empty());
  }
}

TEST_F(PrivateFontTest, TheFileOfTheCurrentDirectoryComesFirstAndIsNobodyElses) {
  WriteWholeFile("Mine.ttf", RenamedFont());
  TextPainter mine("Mine.ttf");
  ASSERT_TRUE(mine.SetFont(u"No such family", 16));
  EXPECT_EQ(mine.FontFamily(), "Tavrel TestsMono");
  // It is that font that paints, not one found instead.
  TextPainter plain("NoSuchFont.ttf");
  ASSERT_TRUE(plain.SetFont(u"DejaVu Sans Mono", 16));
  EXPECT_EQ(PaintLine(mine, u"Lucon"), PaintLine(plain, u"Lucon"));
  TextPainter other("Lucon.ttf");
  ASSERT_TRUE(other.SetFont(u"Tavrel TestsMono", 16));
  EXPECT_EQ(other.FontFamily(), "DejaVu Sans Mono");
}

TEST_F(PrivateFontTest, WithoutAnyFontTheFormerOneStaysOrNothingIsPainted) {
  TextPainter painter("NoSuchFont.ttf");
  EXPECT_FALSE(painter.SetFont(u"No such family", 16));
  EXPECT_TRUE(PaintLine(painter, u"Lost").Bounds().Empty());
  EXPECT_EQ(painter.CountMissingGlyphs(), 0);

  ASSERT_TRUE(painter.SetFont(u"DejaVu Sans", 16));
  const Picture before = PaintLine(painter, u"Kept");
  EXPECT_FALSE(painter.SetFont(u"No such family", 40));
  EXPECT_EQ(painter.FontFamily(), "DejaVu Sans");
  EXPECT_EQ(PaintLine(painter, u"Kept"), before);
}

const std::vector<std::u16string>& Texts() {
  static const std::vector<std::u16string> texts{u"Channel 9", u"Новости", u"قناة", u"中央电视台",
                                                 u"📺 live",    u"ערוץ",    u"चैनल",  u"ニュース"};
  return texts;
}

TEST(TextSharing, PaintersWorkAtTheSameTimeOnAnyThread) {
  std::vector<Picture> expected;
  {
    TextPainter painter("Lucon.ttf");
    ASSERT_TRUE(painter.SetFont(u"No such family", 14));
    for (const std::u16string& text : Texts()) {
      expected.push_back(PaintLine(painter, text));
    }
  }
  constexpr std::size_t kThreads = 4;
  constexpr int kRounds = 6;
  // Made here, used and destroyed there; beside them painters of the thread's own come and go.
  std::vector<std::unique_ptr<TextPainter>> painters;
  for (std::size_t i = 0; i < kThreads; ++i) {
    painters.push_back(std::make_unique<TextPainter>(i % 2 == 0 ? "Lucon.ttf" : "NoSuchFont.ttf"));
  }
  std::vector<int> wrong(kThreads, 0);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i, painter = std::move(painters[i])] {
      painter->SetFont(u"DejaVu Sans Mono", 14);
      for (int round = 0; round < kRounds; ++round) {
        TextPainter own("Lucon.ttf");
        own.SetFont(u"No such family", 14);
        for (std::size_t t = 0; t < Texts().size(); ++t) {
          const std::size_t which = (t + i) % Texts().size();
          wrong[i] += PaintLine(*painter, Texts()[which]) == expected[which] ? 0 : 1;
          wrong[i] += PaintLine(own, Texts()[which]) == expected[which] ? 0 : 1;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, std::vector<int>(kThreads, 0));
}

TEST(TextSharing, ALibraryThatPaintsCanBeUnloadedAndLoadedAgain) {
  const std::string path =
      (std::filesystem::path(os::ProgramPath()).parent_path() / "text_module.so").string();
  std::vector<int> counts;
  for (int round = 0; round < 3; ++round) {
    const std::shared_ptr<os::Module> module = os::Module::Load(path);
    auto* const count = module->Find<int()>("CountTextPixels");
    ASSERT_NE(count, nullptr);
    counts.push_back(count());
  }
  EXPECT_GT(counts[0], 500);
  EXPECT_EQ(counts, std::vector<int>(3, counts[0]));
}

}  // namespace
