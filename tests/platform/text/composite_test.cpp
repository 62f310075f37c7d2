#include "platform/text/composite.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

namespace os {
namespace {

TEST(Composite, PutsTheColourOverTheClearColourByItsCoverage) {
  const BgraPixel transparent{255, 0, 255, 0};
  const BgraPixel orange{50, 100, 200, 255};
  const BgraPixel halfBlack{0, 0, 0, 128};
  const BgraPixel white{255, 255, 255, 255};
  // Nothing drawn leaves what is under, the colour of a transparent pixel too.
  EXPECT_EQ(CompositePixel(transparent, orange, 0), transparent);
  EXPECT_EQ(CompositePixel(halfBlack, white, 0), halfBlack);
  // On a transparent pixel the colour stays whole, only its opacity changes.
  EXPECT_EQ(CompositePixel(transparent, orange, 1), (BgraPixel{50, 100, 200, 1}));
  EXPECT_EQ(CompositePixel(transparent, orange, 77), (BgraPixel{50, 100, 200, 77}));
  EXPECT_EQ(CompositePixel(halfBlack, white, 255), white);
  // 128/255 over 128/255: opacity 128 + 128 * 127 / 255 = 191.7; colour 255 * 128 / 191.7 = 170.2.
  EXPECT_EQ(CompositePixel(halfBlack, white, 128), (BgraPixel{170, 170, 170, 192}));
  // The alpha of the colour multiplies the coverage.
  EXPECT_EQ(CompositePixel(transparent, {50, 100, 200, 128}, 128), (BgraPixel{50, 100, 200, 64}));
}

}  // namespace
}  // namespace os
