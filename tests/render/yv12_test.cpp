#include "render/yv12.h"

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "tests/render/guarded_picture.h"

namespace {

using support::GuardedPicture;

TEST(Blend255, IsTheExactMeanRoundedToNearestForEveryInput) {
  for (int s = 0; s < 256; ++s) {
    for (int d = 0; d < 256; ++d) {
      for (int a = 0; a < 256; ++a) {
        const int exact = (2 * (s * a + d * (255 - a)) + 255) / 510;
        ASSERT_EQ(Blend255(d, s, a), exact) << "d " << d << " s " << s << " a " << a;
      }
    }
  }
}

// What CopyPictureClipped does, sample by sample.
void CopyEachSample(GuardedPicture& source, std::int32_t w, std::int32_t h, GuardedPicture& canvas,
                    std::int32_t x, std::int32_t y) {
  const Yv12Picture to = canvas.view();
  const std::int32_t firstRow = std::max(-y, 0);
  const std::int32_t endRow = std::min(h, to.height - y);
  for (std::int32_t row = firstRow; row < endRow; ++row) {
    for (std::int32_t column = 0; column < w; ++column) {
      const std::int32_t cx = x + column;
      const std::int32_t cy = y + row;
      if (cx < 0 || cx >= to.width) {
        continue;
      }
      to.Y()[cy * to.width + cx] = source.Y(column, row);
      // Chroma goes in pairs of visible rows and columns.
      const bool rowPair = row < firstRow + (endRow - firstRow) / 2 * 2;
      const std::int32_t columns = std::min(x + w, to.width) - std::max(x, 0);
      const bool columnPair = cx < std::max(x, 0) + columns / 2 * 2;
      if (rowPair && columnPair) {
        to.V()[ChromaIndex(cx, cy, to.width)] = source.V(column, row);
        to.U()[ChromaIndex(cx, cy, to.width)] = source.U(column, row);
      }
    }
  }
}

TEST(CopyPictureClipped, CopiesWhatLiesInsideTheCanvasAndNothingElse) {
  struct Size {
    std::int32_t w;
    std::int32_t h;
  };
  for (const Size size : {Size{20, 12}, Size{21, 13}, Size{60, 50}}) {
    GuardedPicture source(size.w, size.h);
    source.Scatter(1);
    for (std::int32_t y = -14; y <= 34; y += 2) {
      for (std::int32_t x = -22; x <= 42; x += 2) {
        GuardedPicture canvas(40, 31);
        canvas.Scatter(2);
        GuardedPicture expected = canvas;
        CopyEachSample(source, size.w, size.h, expected, x, y);
        CopyPictureClipped(source.data(), size.w, size.h, canvas.view(), x, y);
        ASSERT_EQ(canvas, expected) << size.w << "x" << size.h << " at " << x << "," << y;
      }
    }
  }
}

TEST(CopyPictureClipped, LeavesTheChromaOfAnOddLastRowAlone) {
  GuardedPicture source(4, 3);
  source.Paint(200, 30, 40);
  GuardedPicture canvas(8, 8);
  canvas.Paint(1, 2, 3);
  CopyPictureClipped(source.data(), 4, 3, canvas.view(), 0, 0);
  EXPECT_EQ(canvas.Y(0, 2), 200);
  EXPECT_EQ(canvas.V(0, 1), 30);
  EXPECT_EQ(canvas.V(0, 2), 2);
  EXPECT_EQ(canvas.U(0, 2), 3);
}

TEST(CopyPictureClipped, BearsPlacesAtTheEndsOfTheNumberRange) {
  GuardedPicture source(4, 4);
  GuardedPicture canvas(8, 8);
  canvas.Scatter(3);
  const GuardedPicture before = canvas;
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max() - 1;
  for (const std::int32_t far : {-kMost, kMost}) {
    CopyPictureClipped(source.data(), 4, 4, canvas.view(), far, 0);
    CopyPictureClipped(source.data(), 4, 4, canvas.view(), 0, far);
  }
  EXPECT_EQ(canvas, before);
}

TEST(FillPlaneRect, SetsEverySampleThatCoversAPixelOfTheRectangle) {
  for (const Plane plane : {Plane::Y, Plane::V, Plane::U}) {
    for (std::int32_t x = -3; x < 20; ++x) {
      for (std::int32_t w = 0; w < 9; ++w) {
        const std::int32_t y = x / 2 - 1;
        const std::int32_t h = 5 - w / 2;
        GuardedPicture canvas(16, 12);
        canvas.Scatter(4);
        GuardedPicture expected = canvas;
        for (std::int32_t py = std::max(y, 0); py < std::min(y + h, 12); ++py) {
          for (std::int32_t px = std::max(x, 0); px < std::min(x + w, 16); ++px) {
            const Yv12Picture to = expected.view();
            if (plane == Plane::Y) {
              to.Y()[py * 16 + px] = 99;
            } else {
              (plane == Plane::V ? to.V() : to.U())[ChromaIndex(px, py, 16)] = 99;
            }
          }
        }
        FillPlaneRect(canvas.view(), plane, x, y, w, h, 99);
        ASSERT_EQ(canvas, expected) << x << "," << y << " " << w << "x" << h;
      }
    }
  }
}

}  // namespace
