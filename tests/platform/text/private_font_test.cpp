#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "picture.h"
#include "platform/text/text_painter.h"

namespace {

namespace fs = std::filesystem;
using os::TextPainter;

// The current directory, empty and of this test only.
class PrivateFontTest : public testing::Test {
 protected:
  PrivateFontTest()
      : before_(fs::current_path()),
        folder_(fs::temp_directory_path() / ("private_font_test." + std::to_string(::getpid()))) {
    fs::create_directories(folder_);
    fs::current_path(folder_);
  }
  ~PrivateFontTest() override {
    fs::current_path(before_);
    fs::remove_all(folder_);
  }

  static std::string ReadFont() {
    std::ifstream file(TAVREL_LABEL_FONT, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void Write(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
  }
  // The label font under a family name that no installed font has.
  static std::string RenamedFont() {
    std::string font = ReadFont();
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
  fs::path folder_;
};

TEST_F(PrivateFontTest, AnAliasOrANearMatchIsNotInstalled) {
  TextPainter painter("Lucon.ttf");
  for (const std::u16string_view family :
       {u"Sans", u"monospace", u"No such family", u"Noto San", u""}) {
    EXPECT_TRUE(painter.SetFont(u"Noto Serif", 16));
    EXPECT_TRUE(painter.SetFont(family, 16));
    EXPECT_EQ(painter.FontFamily(), "DejaVu Sans Mono");
  }
}

TEST_F(PrivateFontTest, TheFileOfTheCurrentDirectoryComesFirst) {
  Write("Lucon.ttf", RenamedFont());
  TextPainter painter("Lucon.ttf");
  ASSERT_TRUE(painter.SetFont(u"No such family", 16));
  EXPECT_EQ(painter.FontFamily(), "Tavrel TestsMono");
  // It is that font that paints, not one found instead.
  TextPainter plain("NoSuchFont.ttf");
  ASSERT_TRUE(plain.SetFont(u"DejaVu Sans Mono", 16));
  EXPECT_EQ(PaintLine(painter, u"Lucon"), PaintLine(plain, u"Lucon"));
}

TEST_F(PrivateFontTest, APrivateFontIsNobodyElses) {
  Write("Mine.ttf", RenamedFont());
  TextPainter mine("Mine.ttf");
  TextPainter other("Lucon.ttf");
  ASSERT_TRUE(mine.SetFont(u"No such family", 16));
  ASSERT_EQ(mine.FontFamily(), "Tavrel TestsMono");
  ASSERT_TRUE(other.SetFont(u"Tavrel TestsMono", 16));
  EXPECT_EQ(other.FontFamily(), "DejaVu Sans Mono");
}

TEST_F(PrivateFontTest, AFileThatHoldsNoFontIsPassedOver) {
  for (const std::string& damaged :
       {std::string(), std::string("not a font at all"), ReadFont().substr(0, 5000)}) {
    Write("Lucon.ttf", damaged);
    TextPainter painter("Lucon.ttf");
    EXPECT_TRUE(painter.SetFont(u"No such family", 16));
    EXPECT_EQ(painter.FontFamily(), "DejaVu Sans Mono");
    EXPECT_FALSE(PaintLine(painter, u"Lucon").Bounds().Empty());
  }
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

}  // namespace
