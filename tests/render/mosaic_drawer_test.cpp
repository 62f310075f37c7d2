#include "render/mosaic_drawer.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "render/kernels/drawing_kernels.h"
#include "render/label_colour.h"
#include "render/selector_drawer.h"
#include "tests/render/guarded_picture.h"
#include "tests/support/allocation_count.h"

namespace {

using support::GuardedPicture;

constexpr std::int32_t kWidth = 480;
constexpr std::int32_t kHeight = 320;  // a selector is two pixels thick
constexpr std::int32_t kAspectX = 4;
constexpr std::int32_t kAspectY = 3;

// The windows of a wall, with everything that is drawn over them.
struct Wall {
  std::vector<WindowState> windows;
  std::vector<WindowMarks> marks;
  std::vector<std::vector<std::uint8_t>> pictures;

  void Add(std::mt19937& random, std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h) {
    std::vector<std::uint8_t>& picture =
        pictures.emplace_back(static_cast<std::size_t>(std::max(w, 0)) *
                              static_cast<std::size_t>(std::max(h, 0)) * 3 / 2);
    for (std::uint8_t& sample : picture) {
      sample = static_cast<std::uint8_t>(random());
    }
    windows.push_back(
        {random() % 8 != 0 ? picture.data() : nullptr, random() % 8 != 0, x, y, w, h});
    WindowMarks& mark = marks.emplace_back();
    mark.selected = random() % 3 == 0;
    mark.metered = windows.back().enabled && random() % 4 != 0;
    mark.channels = static_cast<std::int32_t>(random() % 4);
    for (std::size_t i = 0; i < mark.levels.size(); ++i) {
      mark.levels[i] = static_cast<float>(random() % 1001) / 1000;
      mark.peaks[i] = static_cast<float>(random() % 1001) / 1000;
    }
    mark.alarm = random() % 2 == 0;
  }
};

void SetTexts(Compose& labels) {
  for (std::int32_t i = 0; i < labels.LabelCount(); ++i) {
    SetLabelText(labels, i, i % 4 == 3 ? "" : "Label " + std::to_string(i));
    ParseLabelColour(labels, i, i % 2 == 0 ? "#FFFFFF" : "#80FF8800");
  }
}

// The passes one after the other, with the scalar kernels and every pixel of the meters computed
// anew.
void DrawInPasses(Compose& labels, const Wall& wall, const Yv12Picture& canvas) {
  DrawWindows(labels, wall.windows, canvas.data, canvas.width, canvas.height, kAspectX, kAspectY);
  for (std::size_t i = 0; i < wall.windows.size(); ++i) {
    if (wall.marks[i].selected) {
      DrawSelector(wall.windows[i], canvas);
    }
  }
  for (std::size_t i = 0; i < wall.windows.size(); ++i) {
    const WindowState& window = wall.windows[i];
    const WindowMarks& marks = wall.marks[i];
    if (!marks.metered || window.w / 10 < 1 || window.h < 1) {
      continue;
    }
    const MeterPanel panel(canvas, window.x, window.y, window.w / 10, window.h, marks.channels);
    DrawMeterPanel(panel);
    DrawMeterBars(panel, marks.levels, marks.peaks);
    if (marks.alarm) {
      DrawAlarmIndicator(panel);
    }
  }
}

class MosaicDrawerVersions : public testing::TestWithParam<const kernels::DrawingKernels*> {
 protected:
  MosaicDrawerVersions() {
    SetTexts(labels_);
    SetTexts(sameLabels_);
  }
  ~MosaicDrawerVersions() override { kernels::UseKernels(*kernels::AllKernels().back()); }

  // Whether a frame of the wall is, drawn by the version under test, what the passes leave; drawn
  // twice, as kept tables and overlays must not show.
  testing::AssertionResult EqualsThePasses(const Wall& wall) {
    for (std::uint32_t frame = 0; frame < 2; ++frame) {
      GuardedPicture expected(kWidth, kHeight);
      expected.Scatter(frame);
      GuardedPicture actual = expected;
      kernels::UseKernels(kernels::ScalarKernels());
      const bool passesFail = Fails([&] { DrawInPasses(labels_, wall, expected.view()); });
      kernels::UseKernels(*GetParam());
      const bool fails = Fails([&] {
        drawer_.Draw(sameLabels_, wall.windows, wall.marks, actual.view(), kAspectX, kAspectY);
      });
      if (fails != passesFail) {
        return testing::AssertionFailure() << (fails ? "fails" : "does not fail");
      }
      if (!(actual == expected)) {
        return testing::AssertionFailure() << "frame " << frame << " differs";
      }
      failures_ += fails ? 1 : 0;
    }
    return testing::AssertionSuccess();
  }

  template <typename Drawing>
  static bool Fails(Drawing drawing) {
    try {
      drawing();
      return false;
    } catch (const BadConfigException&) {
      return true;
    }
  }

  std::mt19937 random_{21};
  Compose labels_{8};
  Compose sameLabels_{8};
  MosaicDrawer drawer_;
  int failures_ = 0;
};

TEST_P(MosaicDrawerVersions, DrawsWindowsSideBySideAsThePassesDo) {
  // Adjoining windows of even and of odd sizes; one more than there are labels. The labels of the
  // upper row lie on the windows of the lower one.
  for (int round = 0; round < 10; ++round) {
    Wall wall;
    for (std::int32_t i = 0; i < 9; ++i) {
      wall.Add(random_, i % 3 * 156, i / 3 * 100, i % 2 == 0 ? 156 : 155, i < 3 ? 100 : 97);
    }
    ASSERT_TRUE(EqualsThePasses(wall)) << "round " << round;
  }
  EXPECT_EQ(failures_, 0);
}

TEST_P(MosaicDrawerVersions, DrawsAnyLayoutAsThePassesDo) {
  const auto draw = [this](std::int32_t from, std::int32_t to) {
    return from + static_cast<std::int32_t>(random_() % static_cast<std::uint32_t>(to - from));
  };
  int drawn = 0;
  for (int round = 0; round < 150; ++round) {
    Wall wall;
    const std::int32_t count = draw(1, 7);
    for (std::int32_t i = 0; i < count; ++i) {
      const std::int32_t w = draw(1, 200);
      const std::int32_t h = round % 5 == 0 ? draw(1, 12) : draw(1, 150);
      // Half of the walls lie inside the canvas, so that their selections can be drawn.
      const std::int32_t edge = round % 2 == 0 ? 0 : 60;
      wall.Add(random_, draw(-edge, kWidth - w - 1 + edge) / 2 * 2,
               draw(-edge, kHeight - h - 1 + edge) / 2 * 2, w, h);
    }
    ASSERT_TRUE(EqualsThePasses(wall)) << "round " << round;
    ++drawn;
  }
  EXPECT_GT(failures_, 10) << "no selection reached out of the canvas";
  EXPECT_LT(failures_, drawn) << "most frames must have been drawn whole";
}

INSTANTIATE_TEST_SUITE_P(All, MosaicDrawerVersions,
                         testing::ValuesIn(kernels::AllKernels().begin(),
                                           kernels::AllKernels().end()),
                         [](const auto& version) { return std::string(version.param->name); });

TEST(MosaicDrawer, AllocatesNothingWhileOnlyPicturesAndLevelsChange) {
  std::mt19937 random(22);
  Wall wall;
  for (std::int32_t i = 0; i < 6; ++i) {
    wall.Add(random, i % 3 * 160, i / 3 * 150, 150, 110);
    wall.windows.back().picture = wall.pictures.back().data();
    wall.windows.back().enabled = true;
    wall.marks.back().selected = i < 2;
    wall.marks.back().metered = true;
    wall.marks.back().channels = 2;
  }
  Compose labels(6);
  SetTexts(labels);
  GuardedPicture canvas(kWidth, kHeight);
  MosaicDrawer drawer;
  const auto frame = [&] {
    for (WindowMarks& marks : wall.marks) {
      marks.levels[0] = static_cast<float>(random() % 1001) / 1000;
      marks.alarm = !marks.alarm;
    }
    drawer.Draw(labels, wall.windows, wall.marks, canvas.view(), kAspectX, kAspectY);
  };
  frame();
  const support::AllocationCount before;
  for (int i = 0; i < 20; ++i) {
    frame();
  }
  EXPECT_EQ(before.Since(), 0u);
}

}  // namespace
