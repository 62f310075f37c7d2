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

}  // namespace
