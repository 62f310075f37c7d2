// The coefficients of the resampler: one short low-pass filter for each fraction of a sample.
#pragma once

#include <cstdint>
#include <vector>

namespace qorp {

// A sum of coefficients of this size is a gain of 1.
inline constexpr int kFilterScale = 32768;

// Builds phases + 1 filters of taps coefficients each, one after the other.
//
// Filter p is a sinc that is cut off at factor (of half the source's rate, at most 1), shifted by
// p / phases of a sample, and faded out by a Blackman-Nuttall window. Each filter's coefficients
// add up to kFilterScale within 1: what rounding takes from one tap is given to the next one. With
// taps of at most 16 / factor, rounded up, the magnitudes of one filter add up to less than
// 2 * kFilterScale, so that its products with 16-bit samples add up within 32 bits. The last filter
// is the first one moved on by one tap: the neighbour of filter phases - 1 when neighbours are
// interpolated.
std::vector<std::int16_t> BuildFilter(double factor, std::int32_t taps, std::int32_t phases);

}  // namespace qorp
