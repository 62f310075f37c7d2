// The units that all rooms of the host share.
#pragma once

#include <chrono>
#include <cstdint>
#include <numeric>

namespace host {

// A point in time or a length of time in units of 100 ns, as everywhere in the media graph.
using Time = std::int64_t;

inline constexpr Time kMillisecond = 10'000;
inline constexpr Time kSecond = 10'000'000;

// Rounded towards 0.
inline std::chrono::milliseconds Milliseconds(Time time) {
  return std::chrono::milliseconds(time / kMillisecond);
}

// A fraction: a frame rate in frames per second, or the width-to-height shape of a picture or
// pixel.
struct Ratio {
  std::int32_t num = 0;
  std::int32_t den = 1;

  bool operator==(const Ratio&) const = default;
  bool positive() const { return num > 0 && den > 0; }
  double value() const { return static_cast<double>(num) / den; }
};

inline Ratio Reduced(Ratio ratio) {
  const std::int32_t divisor = std::gcd(ratio.num, ratio.den);
  return divisor == 0 ? ratio : Ratio{ratio.num / divisor, ratio.den / divisor};
}

// Length of one frame at a positive rate, rounded half up: 400000 at 25/1.
inline Time FrameDuration(Ratio rate) {
  return (kSecond * rate.den + rate.num / 2) / rate.num;
}

// The product of a time and a rate leaves 64 bits within months.
__extension__ using Wide = __int128;

// Rounded down. divisor: positive.
inline std::int64_t FloorDivided(Wide dividend, std::int64_t divisor) {
  const Wide quotient = dividend / divisor;
  return static_cast<std::int64_t>(quotient - (dividend % divisor < 0 ? 1 : 0));
}

// Start of frame n of a stream at a positive rate, rounded half up: no error builds up over years.
inline Time FrameStart(std::int64_t frame, Ratio rate) {
  return FloorDivided(Wide{frame} * kSecond * rate.den + rate.num / 2, rate.num);
}

// The frame that a time lies in: the last one that has started by then.
inline std::int64_t FrameAt(Time time, Ratio rate) {
  const std::int64_t frame = FloorDivided(Wide{time} * rate.num, kSecond * rate.den);
  // Starts are rounded: the neighbour may be meant.
  if (FrameStart(frame, rate) > time) {
    return frame - 1;
  }
  return FrameStart(frame + 1, rate) <= time ? frame + 1 : frame;
}

// The frame whose start is nearest to a time.
inline std::int64_t NearestFrame(Time time, Ratio rate) {
  const std::int64_t length = kSecond * rate.den;
  return FloorDivided(Wide{time} * rate.num + length / 2, length);
}

// Width-to-height shape of one pixel of a picture that is shown with the given display aspect.
inline Ratio PixelAspect(std::int32_t width, std::int32_t height, Ratio displayAspect) {
  const std::int64_t num = static_cast<std::int64_t>(height) * displayAspect.num;
  const std::int64_t den = static_cast<std::int64_t>(width) * displayAspect.den;
  const std::int64_t divisor = std::gcd(num, den);
  return divisor == 0 ? Ratio{1, 1}
                      : Ratio{static_cast<std::int32_t>(num / divisor),
                              static_cast<std::int32_t>(den / divisor)};
}

}  // namespace host
