#include "render/label_colour.h"

#include <gtest/gtest.h>

#include "render/compose.h"
#include "tests/render/guarded_picture.h"

namespace {

using support::GuardedPicture;

TEST(LabelColour, ReadsEveryForm) {
  EXPECT_EQ(ReadLabelColour("#F80"), (LabelColour{255, 136, 0, 255}));
  EXPECT_EQ(ReadLabelColour("#8F80"), (LabelColour{255, 136, 0, 136}));
  EXPECT_EQ(ReadLabelColour("#00ff7F"), (LabelColour{0, 255, 127, 255}));
  EXPECT_EQ(ReadLabelColour("#80FF0000"), (LabelColour{255, 0, 0, 128}));
  EXPECT_EQ(ReadLabelColour("#aBc09e1D")->Argb(), 0xABC09E1DU);
}

TEST(LabelColour, RefusesEverythingElse) {
  for (const char* text :
       {"", "#", "#1", "#12", "#12345", "#1234567", "#123456789", "FF0000", "F80", "#GG0000",
        "# 80", "#F8-", "red", " #F80", "#0x0", "#FF00\xC3\xA9"}) {
    EXPECT_FALSE(ReadLabelColour(text).has_value()) << text;
  }
}

TEST(LabelColour, AnInvalidColourKeepsTheFormerOne) {
  Compose labels(1);
  TextRenderer& renderer = labels.Find(0)->Renderer();
  for (const char* text : {"#12345", static_cast<const char*>(nullptr)}) {
    ParseLabelColour(labels, 0, text);
    EXPECT_EQ(renderer.TextColour(), (LabelColour{255, 255, 255, 255}));
  }
  ParseLabelColour(labels, 0, "#123");
  ParseLabelColour(labels, 0, "");
  EXPECT_EQ(renderer.TextColour(), (LabelColour{0x11, 0x22, 0x33, 255}));
}

TEST(LabelColour, AnInvalidColourCountsAsAnAssignment) {
  GuardedPicture canvas(200, 100);
  Compose labels(1);
  Label& label = *labels.Find(0);
  label.SetText("x");
  const WindowState window{canvas.data(), true, 0, 0, 100, 20};
  const auto draw = [&] { label.Draw(window, canvas.view(), Ratio()); };
  draw();
  ASSERT_EQ(label.Renderer().RenderCount(), 1U);
  // The first assignment of all is a change, whatever it assigns.
  ParseLabelColour(labels, 0, nullptr);
  draw();
  EXPECT_EQ(label.Renderer().RenderCount(), 2U);
  ParseLabelColour(labels, 0, nullptr);
  draw();
  EXPECT_EQ(label.Renderer().RenderCount(), 2U);
}

TEST(LabelColour, AWindowWithoutALabelIsIgnored) {
  Compose labels(2);
  for (const std::int32_t index : {-1, 2, 1000000}) {
    ParseLabelColour(labels, index, "#F00");
    SetLabelText(labels, index, "nobody's");
    EXPECT_EQ(labels.Find(index), nullptr);
  }
  for (const std::int32_t index : {0, 1}) {
    EXPECT_EQ(labels.Find(index)->Renderer().TextColour(), (LabelColour{255, 255, 255, 255}));
    EXPECT_EQ(labels.Find(index)->Text(), "");
  }
  EXPECT_EQ(Compose(0).Find(0), nullptr);
  EXPECT_EQ(Compose(-3).LabelCount(), 0);
}

}  // namespace
