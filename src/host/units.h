// The units that all folders of the host share.
#pragma once

#include <chrono>
#include <cstdint>

#include "util/ratio.h"

namespace host {

// A point in time or a length of time in units of 100 ns, as everywhere in the media graph.
using Time = std::int64_t;

inline constexpr Time kMillisecond = 10'000;
inline constexpr Time kSecond = 10'000'000;

// Rounded towards 0.
constexpr std::chrono::milliseconds Milliseconds(Time time) {
  return std::chrono::milliseconds(time / kMillisecond);
}

using qorp::FrameDuration;
using qorp::Ratio;
using qorp::Reduced;

// The product of a time and a rate exceeds 64 bits within months.
__extension__ using Wide = __int128;

// Rounded down. divisor: positive.
inline std::int64_t FloorDivided(Wide dividend, std::int64_t divisor) {
  const Wide quotient = dividend / divisor;
  return static_cast<std::int64_t>(quotient - (dividend % divisor < 0 ? 1 : 0));
}

// Start of frame n of a stream at a positive rate, rounded half up: errors do not accumulate.
inline Time FrameStart(std::int64_t frame, Ratio rate) {
  return FloorDivided(Wide{frame} * kSecond * rate.den + rate.num / 2, rate.num);
}

// The frame at a time: the last one that has started by then.
inline std::int64_t FrameAt(Time time, Ratio rate) {
  const std::int64_t frame = FloorDivided(Wide{time} * rate.num, kSecond * rate.den);
  // Starts are rounded, so it may be a neighbour.
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

}  // namespace host
