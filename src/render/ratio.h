// Ratio: two terms without a common divisor.
#pragma once

#include <cstdint>
#include <numeric>

// Made of positive terms and reduced, so that equal ratios have equal terms.
struct Ratio {
  constexpr Ratio() = default;
  constexpr Ratio(std::int64_t numerator, std::int64_t denominator)
      : num(numerator / std::gcd(numerator, denominator)),
        den(denominator / std::gcd(numerator, denominator)) {}

  bool operator==(const Ratio&) const = default;

  std::int64_t num = 1;
  std::int64_t den = 1;
};

// Width to height of one pixel of a width x height picture that is shown at aspectX:aspectY. Square
// when one of the four is not positive.
constexpr Ratio PixelAspect(std::int32_t width, std::int32_t height, std::int32_t aspectX,
                            std::int32_t aspectY) {
  if (width < 1 || height < 1 || aspectX < 1 || aspectY < 1) {
    return {};
  }
  const Ratio picture(width, height);
  const Ratio display(aspectX, aspectY);
  return {picture.den * display.num, picture.num * display.den};
}
