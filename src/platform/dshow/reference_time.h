// Arithmetic on times that come from elsewhere: from samples, media types and hosts.
#pragma once

#include <cstdint>

#include "platform/dshow/media_types.h"

// Sums and differences of any two times, in 64 bits that wrap around: plain signed arithmetic would
// be undefined near the ends of the range.
constexpr REFERENCE_TIME AddTimes(REFERENCE_TIME a, REFERENCE_TIME b) {
  return static_cast<REFERENCE_TIME>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
constexpr REFERENCE_TIME SubtractTimes(REFERENCE_TIME a, REFERENCE_TIME b) {
  return static_cast<REFERENCE_TIME>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

// How far two times lie apart, exact: that needs all 64 bits.
constexpr std::uint64_t TimeDistance(REFERENCE_TIME a, REFERENCE_TIME b) {
  return a < b ? static_cast<std::uint64_t>(b) - static_cast<std::uint64_t>(a)
               : static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b);
}

// time modulo a period other than 0, with the sign of time.
constexpr REFERENCE_TIME TimeRemainder(REFERENCE_TIME time, REFERENCE_TIME period) {
  return period == -1 ? 0 : time % period;
}
