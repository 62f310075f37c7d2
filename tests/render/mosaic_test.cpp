// What is drawn into a frame: figures worked out by hand for the reference, and the reference
// against the production drawing with every set of kernels.
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "render/drawing_engine.h"
#include "render/kernels/drawing_kernels.h"
#include "tests/render/guarded_picture.h"
#include "tests/render/reference_mosaic.h"

namespace {

using support::GuardedPicture;

// A window of 240x60 at (8, 12): its panel is 24 pixels wide, two bars of 8x50 stand on row 69,
// from columns 10 and 21 on.
GuardedPicture ReferenceMeter(std::vector<float> levels, std::vector<float> peaks, bool alarm) {
  GuardedPicture canvas(64, 96);
  canvas.Paint(100, 90, 160);
  reference::Painter(canvas.view().data, 64, 96).DrawMeter(8, 12, 240, 60, levels, peaks, alarm);
  return canvas;
}

TEST(Reference, HasTheFiguresOfABar) {
  // Half of full scale lights 44 rows and 21 segments; the peak of 0.8 is marked on row 21. The
  // fourth column of the bar, from the top down, computed in double precision from the formulas.
  constexpr std::array kLuma{67,  94,  69,  47,  71,  55,  161, 87,  147, 87,  133, 95,  207,
                             199, 193, 199, 187, 199, 149, 199, 111, 207, 49,  207, 27,  183,
                             45,  191, 79,  191, 105, 191, 123, 183, 133, 167, 143, 159, 137,
                             151, 147, 143, 149, 111, 151, 79,  153, 47,  171, 31};
  constexpr std::array kV{137, 189, 197, 207, 142, 142, 142, 139, 137, 134, 108, 107,
                          94,  82,  72,  63,  55,  51,  52,  63,  74,  92,  101};
  constexpr std::array kU{125, 107, 103, 98, 41, 36, 38, 54, 69, 90, 110, 109,
                          102, 93,  82,  76, 71, 66, 67, 75, 86, 97, 107};
  GuardedPicture canvas = ReferenceMeter({0.5f, 0.01f}, {0.8f, 0.02f}, false);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(canvas.Y(13, 20 + i), kLuma[i]) << "row " << i;
    if (i >= 4) {  // below the marker
      EXPECT_NEAR(canvas.V(13, 20 + i), kV[i / 2 - 2], 1) << "row " << i;
      EXPECT_NEAR(canvas.U(13, 20 + i), kU[i / 2 - 2], 1) << "row " << i;
    }
  }
}

TEST(Reference, HasTheFiguresOfAPanelAndItsAlarm) {
  GuardedPicture canvas = ReferenceMeter({}, {}, true);
  EXPECT_EQ(canvas.Y(8, 12), 188) << "the corner is black before its frame";
  EXPECT_EQ(canvas.Y(20, 42), 58) << "the centre is half dark";
  EXPECT_EQ(canvas.Y(20, 12 + 5), 189) << "the line under the band";
  // Towards neutral with opacities of 31, 33, 33 and 34.
  EXPECT_EQ(canvas.V(20, 42), 106);
  EXPECT_EQ(canvas.U(20, 42), 146);
  // The box: 12x2 at (14, 14).
  for (const auto& [x, y, isRed] : {std::tuple{14, 14, true},
                                    {25, 15, true},
                                    {13, 14, false},
                                    {26, 15, false},
                                    {14, 13, false},
                                    {25, 16, false}}) {
    EXPECT_EQ(canvas.Y(x, y) == 76, isRed) << x << "," << y;
  }
  EXPECT_EQ(canvas.V(14, 14), 255);
  EXPECT_EQ(canvas.U(24, 14), 86);
}

TEST(Reference, HasTheFiguresOfASelection) {
  GuardedPicture canvas(40, 300);  // bars of two pixels
  canvas.Paint(1, 2, 3);
  reference::Painter painter(canvas.view().data, 40, 300);
  EXPECT_FALSE(painter.DrawSelection(20, 10, 20, 30)) << "it ends with the canvas's last column";
  EXPECT_TRUE(painter.DrawSelection(4, 10, 20, 31));
  int red = 0;
  for (int y = 0; y < 300; ++y) {
    for (int x = 0; x < 40; ++x) {
      red += canvas.Y(x, y) == 76 ? 1 : 0;
    }
  }
  EXPECT_EQ(red, 2 * 2 * 20 + 2 * 2 * 27);
  EXPECT_EQ(canvas.V(10, 38), 255) << "shared with the lower bar, which begins on row 39";
  EXPECT_EQ(canvas.V(10, 36), 2);
  EXPECT_EQ(canvas.U(22, 20), 86);
}

// A random frame: its canvas, and windows with everything that is drawn over them.
struct Frame {
  explicit Frame(std::mt19937& generator) : random(generator) {}

  std::int32_t Draw(std::int64_t from, std::int64_t to) {
    return static_cast<std::int32_t>(from + random() % std::max<std::int64_t>(to - from, 1));
  }
  bool OneIn(std::uint32_t chances) { return random() % chances == 0; }

  void Make(int kind, const std::vector<std::uint8_t>& noise) {
    windows.clear();
    overlays.clear();
    if (kind == 0) {  // anything anywhere
      width = Draw(8, 100);
      height = Draw(8, 100);
      for (std::int32_t i = Draw(1, 6); i > 0; --i) {
        Add(Draw(-40, width + 10), Draw(-40, height + 10), Draw(1, 90), Draw(1, OneIn(3) ? 12 : 80),
            noise);
      }
    } else if (kind == 1) {  // thick selections around narrow and low windows
      width = Draw(12, 70);
      height = Draw(150, 650);
      for (std::int32_t i = Draw(1, 6); i > 0; --i) {
        const std::int32_t w = Draw(1, width - 2);
        const std::int32_t h = Draw(1, OneIn(2) ? 150 : OneIn(2) ? 12 : 4);
        std::int32_t x = Draw(0, width - w);
        std::int32_t y = Draw(0, height - h);
        if (!windows.empty() && OneIn(2)) {  // close to the one before
          const WindowState& other = windows.back();
          x = std::clamp(other.x + Draw(-w - 2, other.w + 3), 0, width - w - 1);
          y = std::clamp(OneIn(2) ? other.y - h + Draw(-2, 3) : other.y + other.h + Draw(-2, 5), 0,
                         height - h - 1);
        }
        Add(x, y, w, h, noise);
      }
    } else if (kind == 2) {  // side by side, from very low ones to some whose markers extend beyond
      const std::int32_t columns = Draw(1, 4);
      const std::int32_t rows = Draw(1, 4);
      const std::int32_t w = Draw(2, 35) * 2;
      const std::int32_t h = (OneIn(3) ? Draw(112, 150) : OneIn(2) ? Draw(1, 6) : Draw(10, 50)) * 2;
      width = columns * w + Draw(1, 4);
      height = rows * h + Draw(1, 4);
      for (std::int32_t i = 0; i < columns * rows; ++i) {
        Add(i % columns * w, i / columns * h, w - Draw(0, 2), h - Draw(0, 2), noise);
      }
    } else {  // wide meters, within the canvas and across its edges
      const bool across = kind == 4;
      width = across ? Draw(16, 120) : Draw(100, 320);
      height = across ? Draw(40, 140) : Draw(60, 260);
      for (std::int32_t i = Draw(1, 3); i > 0; --i) {
        const std::int32_t w = Draw(40, across ? 700 : width);
        const std::int32_t h = Draw(20, across ? 200 : height);
        Add(Draw(across ? -w / 10 : -4, across ? width : width - w),
            Draw(across ? -h : -4, across ? height : height - h), w, h, noise);
      }
    }
    if (OneIn(12)) {  // what a hostile source or host may say
      constexpr std::int32_t kFar[] = {
          std::numeric_limits<std::int32_t>::min(), -2000000000, -1, 0, 2000000000,
          std::numeric_limits<std::int32_t>::max()};
      WindowState& window = windows[Draw(0, std::ssize(windows))];
      window.picture = nullptr;
      for (std::int32_t* const value : {&window.x, &window.y, &window.w, &window.h}) {
        *value = OneIn(2) ? kFar[Draw(0, 6)] : *value;
      }
      window.x = window.x / 2 * 2;
      window.y = window.y / 2 * 2;
    }
  }

  void Add(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
           const std::vector<std::uint8_t>& noise) {
    const std::int64_t bytes = std::int64_t{w} * h * 3 / 2;
    const std::uint8_t* const picture = noise.data() + Draw(0, std::ssize(noise) - bytes);
    windows.push_back({OneIn(8) ? nullptr : picture, !OneIn(8), x / 2 * 2, y / 2 * 2, w, h});
    overlays.emplace_back();
  }

  void ChangeOverlays() {
    for (std::size_t i = 0; i < overlays.size(); ++i) {
      overlays[i].selected = OneIn(4);
      overlays[i].metered = windows[i].enabled && !OneIn(4);
      overlays[i].channels = OneIn(3) ? Draw(0, 11) : Draw(1, 3);
      overlays[i].alarm = OneIn(2);
      for (auto* const values : {&overlays[i].levels, &overlays[i].peaks}) {
        for (float& value : *values) {
          constexpr std::int32_t kEnds[] = {
              0, 1000, -1, 1001, 3, 4, std::numeric_limits<std::int32_t>::min()};
          value = OneIn(4) ? static_cast<float>(kEnds[Draw(0, 7)]) / 1000
                           : std::pow(10.0f, static_cast<float>(Draw(-600, 20)) / 200);
        }
      }
    }
  }

  std::mt19937& random;
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<WindowState> windows;
  std::vector<WindowOverlays> overlays;
};

// One set of kernels, and the objects that draw with it from frame to frame.
struct Version {
  const kernels::DrawingKernels* kernels = nullptr;
  Compose labels{5};
  MosaicDrawer drawer{};
};

TEST(MosaicDrawer, DrawsWhatTheReferenceDraws) {
  constexpr int kFrames = 9000;
  std::mt19937 random(21);
  std::vector<std::uint8_t> noise(1 << 18);
  for (std::uint8_t& sample : noise) {
    sample = static_cast<std::uint8_t>(random());
  }
  std::vector<std::unique_ptr<Version>> versions;
  for (const kernels::DrawingKernels* const set : kernels::AllKernels()) {
    versions.emplace_back(new Version{set});
  }
  Compose labels(5);
  Frame frame(random);
  int refused = 0;
  for (int n = 0; n < kFrames; ++n) {
    // Every layout is drawn twice: tables and overlays that were kept must not show.
    if (n % 2 == 0) {
      frame.Make(n / 2 % 5, noise);
    }
    frame.ChangeOverlays();
    const auto setTexts = [&](Compose& all) {
      for (std::int32_t i = 0; i < all.LabelCount(); ++i) {
        SetLabelText(all, i, n % 10 < 2 && i % 3 != 2 ? "Qg " + std::to_string(i) : "");
        ParseLabelColour(all, i, i % 2 == 0 ? "#FFFFFF" : "#80FF8800");
      }
    };
    GuardedPicture expected(frame.width, frame.height);
    expected.Scatter(static_cast<std::uint32_t>(n));
    const GuardedPicture before = expected;
    setTexts(labels);
    kernels::UseKernels(kernels::ScalarKernels());
    const bool drawn =
        reference::DrawMosaic(labels, frame.windows, frame.overlays, expected.view(), {4, 3});
    refused += drawn ? 0 : 1;
    for (const std::unique_ptr<Version>& version : versions) {
      GuardedPicture actual = before;
      setTexts(version->labels);
      kernels::UseKernels(*version->kernels);
      bool done = true;
      try {
        version->drawer.Draw(version->labels, frame.windows, frame.overlays, actual.view(), {4, 3});
      } catch (const BadConfigException&) {
        done = false;
      }
      ASSERT_EQ(done, drawn) << "frame " << n;
      ASSERT_TRUE(actual == expected) << "frame " << n << ", " << version->kernels->name;
    }
  }
  kernels::UseKernels(*kernels::AllKernels().back());
  EXPECT_GT(refused, kFrames / 20);
  EXPECT_LT(refused, kFrames / 2) << "most frames must have been drawn whole";
}

}  // namespace
