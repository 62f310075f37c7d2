#include "audio/filter_bank.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "audio/inner_product.h"

namespace {

using qorp::BuildFilter;
using qorp::kFilterScale;

constexpr std::int32_t kPhases = 1024;

TEST(FilterBank, HasUnitGainAndBoundedSumsInEveryPhase) {
  struct Case {
    double factor;
    std::int32_t taps;
  };
  // The second one is where magnitudes grow largest.
  for (const Case& c : {Case{1.0, 16},
                        {0.99999, 17},
                        {44100.0 / 48000, 18},
                        {0.5, 32},
                        {11025.0 / 48000, 70},
                        {1.0 / 24, 384},
                        {1.0, 1},
                        {1.0, 2}}) {
    const auto bank = BuildFilter(c.factor, c.taps, kPhases);
    ASSERT_EQ(bank.size(), static_cast<std::size_t>(c.taps) * (kPhases + 1));
    for (std::int32_t phase = 0; phase <= kPhases; ++phase) {
      std::int32_t sum = 0;
      std::int32_t magnitude = 0;
      for (std::int32_t i = 0; i < c.taps; ++i) {
        const std::int32_t coefficient = bank[static_cast<std::size_t>(phase * c.taps + i)];
        sum += coefficient;
        magnitude += std::abs(coefficient);
      }
      ASSERT_NEAR(sum, kFilterScale, 1) << "factor " << c.factor << ", phase " << phase;
      ASSERT_LT(magnitude, 2 * kFilterScale) << "factor " << c.factor << ", phase " << phase;
    }
  }
}

TEST(FilterBank, PassesASampleOnItsPlace) {
  constexpr std::int32_t kTaps = 16;
  const auto bank = BuildFilter(1.0, kTaps, kPhases);
  const auto at = [&](std::int32_t phase, std::int32_t tap) {
    return bank[static_cast<std::size_t>(phase * kTaps + tap)];
  };
  // Phase 0 is the sample at the centre; what 16 bits cannot hold of it went to the next tap.
  for (std::int32_t tap = 0; tap < kTaps; ++tap) {
    EXPECT_EQ(at(0, tap), tap == 7 ? 32767 : tap == 8 ? 1 : 0) << tap;
  }
  // The guard filter is phase 0 of the next sample.
  for (std::int32_t tap = 0; tap < kTaps; ++tap) {
    EXPECT_EQ(at(kPhases, tap), at(0, (tap + kTaps - 1) % kTaps));
  }
}

TEST(InnerProduct, IsTheScalarSumForEveryLengthAndAlignment) {
  std::mt19937 random(20210607);
  for (std::int32_t taps = 0; taps <= 67; ++taps) {
    for (std::size_t offset = 0; offset < 8; ++offset) {
      // Exactly as long as needed: a read past either end is a fault under AddressSanitizer.
      std::vector<std::int16_t> samples(offset + static_cast<std::size_t>(taps));
      std::vector<std::int16_t> coefficients(samples.size());
      for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<std::int16_t>(random());
        coefficients[i] =
            static_cast<std::int16_t>(static_cast<std::int32_t>(random() % 1601) - 800);
      }
      if (taps >= 2) {  // the extremes of a product, and of the sum of two
        samples[offset] = samples[offset + 1] = -32768;
        coefficients[offset] = 32767;
        coefficients[offset + 1] = -32768;
      }
      ASSERT_EQ(
          qorp::InnerProduct(samples.data() + offset, coefficients.data() + offset, taps),
          qorp::InnerProductScalar(samples.data() + offset, coefficients.data() + offset, taps))
          << taps << " taps at " << offset;
    }
  }
}

}  // namespace
