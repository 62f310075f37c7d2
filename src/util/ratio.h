// Fractions: frame rates, aspect ratios, and what follows from them.
#pragma once

#include <cstdint>

namespace qorp {

// A numerator and a denominator; equal ones may have different terms.
template <typename Term>
struct RatioOf {
  bool operator==(const RatioOf&) const = default;

  constexpr bool positive() const { return num > 0 && den > 0; }
  constexpr double value() const { return static_cast<double>(num) / static_cast<double>(den); }

  Term num = 1;
  Term den = 1;
};

// A frame rate in frames per second, or a width-to-height aspect ratio.
using Ratio = RatioOf<std::int32_t>;
// For products of two of them.
using WideRatio = RatioOf<std::int64_t>;

// Divides both terms by the common divisor that Euclid's algorithm finds, which may be negative:
// -16:9 becomes 16:-9. 0:0 is unchanged.
template <typename Term>
constexpr RatioOf<Term> Reduced(const RatioOf<Term>& ratio) {
  std::int64_t divisor = ratio.num;
  for (std::int64_t rest = ratio.den; rest != 0;) {
    const std::int64_t next = divisor % rest;
    divisor = rest;
    rest = next;
  }
  if (divisor == 0) {
    return ratio;
  }
  return {static_cast<Term>(ratio.num / divisor), static_cast<Term>(ratio.den / divisor)};
}

// Duration of one frame in 100 ns units, rounded half away from zero: 400000 at 25/1. The rate's
// numerator is not 0.
constexpr std::int64_t FrameDuration(const Ratio& rate) {
  const std::int64_t dividend = std::int64_t{10'000'000} * rate.den;
  const std::int64_t half = rate.num / 2;
  const bool sameSign = (dividend < 0) == (rate.num < 0);
  return (sameSign ? dividend + half : dividend - half) / rate.num;
}

// Width to height of one pixel of a width x height frame that is shown at the display aspect,
// reduced. Square when one of the four is not positive.
constexpr WideRatio PixelAspect(std::int32_t width, std::int32_t height, const Ratio& display) {
  if (width < 1 || height < 1 || display.num < 1 || display.den < 1) {
    return {};
  }
  const Ratio picture = Reduced(Ratio{width, height});
  const Ratio shape = Reduced(display);
  return Reduced(
      WideRatio{std::int64_t{picture.den} * shape.num, std::int64_t{picture.num} * shape.den});
}

}  // namespace qorp
