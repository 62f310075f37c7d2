#include "render/yv12.h"

#include <cstdint>

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

// Where it is cut off at the edges of the canvas, the comparison of whole mosaics tells.
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
