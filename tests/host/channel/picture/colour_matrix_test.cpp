#include "host/channel/picture/colour_matrix.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace host {
namespace {

using Triple = std::array<double, 3>;

// The exact conversion, by way of red, green and blue.
Triple Exact(Triple yuv, LumaWeights weights, bool fullRange) {
  const double kG = 1.0 - weights.red - weights.blue;
  const double y = fullRange ? yuv[0] / 255.0 : (yuv[0] - 16.0) / 219.0;
  const double u = (yuv[1] - 128.0) / (fullRange ? 255.0 : 224.0);
  const double v = (yuv[2] - 128.0) / (fullRange ? 255.0 : 224.0);
  const double red = y + 2.0 * (1.0 - weights.red) * v;
  const double blue = y + 2.0 * (1.0 - weights.blue) * u;
  const double green = (y - weights.red * red - weights.blue * blue) / kG;
  const double luma = 0.299 * red + 0.587 * green + 0.114 * blue;
  return {16.0 + 219.0 * luma, 128.0 + 224.0 * (blue - luma) / 1.772,
          128.0 + 224.0 * (red - luma) / 1.402};
}

Triple Converted(Triple yuv, LumaWeights weights, bool fullRange) {
  std::array<std::uint8_t, 4> y{};
  y.fill(static_cast<std::uint8_t>(yuv[0]));
  auto u = static_cast<std::uint8_t>(yuv[1]);
  auto v = static_cast<std::uint8_t>(yuv[2]);
  ColourMatrix matrix(weights, fullRange);
  matrix.Apply({y.data(), 2}, {&u, 1}, {&v, 1}, {y.data(), 2}, {&u, 1}, {&v, 1}, 2, 2);
  EXPECT_EQ(y[0], y[3]);
  return {static_cast<double>(y[0]), static_cast<double>(u), static_cast<double>(v)};
}

TEST(ColourMatrix, StaysWithinOneStepOfTheExactConversion) {
  std::mt19937 random(1);
  std::uniform_int_distribution<int> byte(0, 255);
  for (const LumaWeights weights : {kBt601, kBt709, kBt2020, kSmpte240m, kFcc}) {
    for (const bool fullRange : {false, true}) {
      for (int i = 0; i < 2000; ++i) {
        const Triple in = {static_cast<double>(byte(random)), static_cast<double>(byte(random)),
                           static_cast<double>(byte(random))};
        const Triple exact = Exact(in, weights, fullRange);
        const Triple got = Converted(in, weights, fullRange);
        for (std::size_t k = 0; k < 3; ++k) {
          ASSERT_NEAR(got[k], std::clamp(exact[k], 0.0, 255.0), 0.6) << k;
        }
      }
    }
  }
}

}  // namespace
}  // namespace host
