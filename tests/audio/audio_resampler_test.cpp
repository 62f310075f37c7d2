#include "audio/audio_resampler.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <random>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using qorp::AudioResampler;
using qorp::ResamplingContext;
using testing::ElementsAreArray;

using Samples = std::vector<std::int16_t>;

Samples Noise(std::size_t count) {
  std::mt19937 random(19700101);
  Samples samples(count);
  for (std::int16_t& sample : samples) {
    sample = static_cast<std::int16_t>(random());
  }
  return samples;
}

std::int32_t Count(const Samples& samples) {
  return static_cast<std::int32_t>(samples.size());
}

// All that the source gives in one call.
Samples ResampleAtOnce(AudioResampler& resampler, const Samples& source) {
  Samples out(7 * source.size());
  std::int32_t consumed = 0;
  out.resize(static_cast<std::size_t>(
      resampler.Resample(out.data(), source.data(), consumed, Count(source), Count(out), true)));
  return out;
}

// One output after the other, all cases in one loop: slow, and easy to verify.
Samples PlainResample(ResamplingContext& context, const Samples& source, std::size_t capacity) {
  std::int32_t step = context.dstIncr / context.srcIncr;
  std::int32_t stepFrac = context.dstIncr % context.srcIncr;
  std::int64_t place = context.index;
  std::int64_t frac = context.frac;
  const std::int64_t taps = context.filterLength;
  const auto count = static_cast<std::int64_t>(source.size());
  Samples out;
  while (out.size() < capacity) {
    const std::int16_t* const filter =
        context.filterBank.data() + (place & context.phaseMask) * taps;
    const std::int64_t first = place >> context.phaseShift;
    if (first >= 0 && first + taps > count) {
      break;
    }
    std::int64_t sum = 0;
    for (std::int64_t i = 0; i < taps; ++i) {
      const std::int64_t at = first < 0 ? std::abs(first + i) % count : first + i;
      const std::int64_t weight = context.linear && first >= 0 ? frac * 256 / context.srcIncr : 0;
      sum += source[static_cast<std::size_t>(at)] *
             (filter[i] * (256 - weight) + filter[i + taps] * weight);
    }
    out.push_back(static_cast<std::int16_t>(
        std::clamp<std::int64_t>(((sum >> 8) + 16384) >> 15, -32768, 32767)));
    place += step;
    frac += stepFrac;
    if (frac >= context.srcIncr) {
      frac -= context.srcIncr;
      ++place;
    }
    if (--context.compensationDistance == 0) {
      step = context.idealDstIncr / context.srcIncr;
      stepFrac = context.idealDstIncr % context.srcIncr;
    }
  }
  return out;
}

TEST(AudioResampler, GivesTheOutputOfThePlainLoop) {
  AudioResampler half;
  half.Init(24000, 48000);
  EXPECT_EQ(half.context()->filterLength, 32);
  EXPECT_EQ(half.context()->index, -15360);
  const Samples source = Noise(700);
  for (const auto& [outputRate, inputRate] :
       {std::pair{48000, 48000}, {44100, 48000}, {48000, 44100}, {11025, 48000}, {22050, 8000}}) {
    for (const bool linear : {false, true}) {
      // None, one that ends before the first sample, one in the midst, one that outlasts the
      // source.
      for (const std::int32_t distance : {0, 5, 60, 100000}) {
        for (const std::size_t capacity : {std::size_t{5}, std::size_t{60}, std::size_t{5000}}) {
          // One channel of two, or the only one.
          const std::size_t stride = capacity == 60 ? 2 : 1;
          AudioResampler resampler;
          resampler.Init(outputRate, inputRate, {.linear = linear});
          resampler.SetCompensation(distance / 4, distance);
          ResamplingContext context = *resampler.context();
          const Samples expected = PlainResample(context, source, capacity);
          Samples interleaved(stride * source.size(), 12345);
          for (std::size_t i = 0; i < source.size(); ++i) {
            interleaved[stride * i] = source[i];
          }
          resampler.SetStride(static_cast<std::int32_t>(stride));
          Samples all(stride * capacity, 777);
          std::int32_t consumed = 0;
          Samples out(static_cast<std::size_t>(
              resampler.Resample(all.data(), interleaved.data(), consumed, Count(source),
                                 static_cast<std::int32_t>(capacity), true)));
          for (std::size_t i = 0; i < out.size(); ++i) {
            out[i] = all[stride * i];
            ASSERT_TRUE(stride == 1 || all[stride * i + 1] == 777);
          }
          ASSERT_THAT(out, ElementsAreArray(expected))
              << inputRate << " to " << outputRate << ", distance " << distance;
          EXPECT_EQ(resampler.context()->compensationDistance,
                    std::max(context.compensationDistance, 0));
        }
      }
    }
  }
}

TEST(AudioResampler, GivesTheSameOutputInPiecesAsAtOnce) {
  const Samples source = Noise(20000);
  const Samples sizes{37, 1, 500, 16, 3, 1000, 128};
  for (const auto& [outputRate, inputRate] :
       {std::pair{44100, 48000}, {48000, 44100}, {24000, 48000}, {48000, 8000}, {48000, 48000}}) {
    for (const bool linear : {false, true}) {
      AudioResampler resampler;
      resampler.Init(outputRate, inputRate, {.linear = linear});
      const Samples atOnce = ResampleAtOnce(resampler, source);
      ASSERT_GT(atOnce.size(), 9000U);

      resampler.Init(outputRate, inputRate, {.linear = linear});
      Samples pieces;
      std::size_t place = 0;  // in source
      std::size_t known = 0;  // samples that have arrived
      for (std::size_t turn = 0; known < source.size(); ++turn) {
        known =
            std::min(known + static_cast<std::size_t>(sizes[turn % sizes.size()]), source.size());
        // There is often less space than the piece would fill.
        Samples out(turn % 3 == 0 ? 5 : 2000);
        std::int32_t written = 0;
        do {
          std::int32_t consumed = 0;
          const auto count = static_cast<std::int32_t>(known - place);
          written =
              resampler.Resample(out.data(), &source[place], consumed, count, Count(out), true);
          pieces.insert(pieces.end(), out.begin(), out.begin() + written);
          ASSERT_LE(consumed, count);
          place += static_cast<std::size_t>(consumed);
        } while (written == Count(out));
      }
      ASSERT_THAT(pieces, ElementsAreArray(atOnce)) << inputRate << " to " << outputRate;
    }
  }
}

TEST(AudioResampler, RefusesWhatItCannotDoAndContinues) {
  AudioResampler resampler;
  Samples out(100);
  const Samples source(100, 500);
  std::int32_t consumed = 0;
  EXPECT_THROW(resampler.Resample(out.data(), source.data(), consumed, 100, 100, true),
               std::logic_error);
  resampler.Init(44100, 48000);
  const ResamplingContext* const context = resampler.context();
  for (const auto& [outputRate, inputRate] :
       {std::pair{0, 48000}, {48000, -1}, {48000, 2097152}, {1, 2097151}}) {
    EXPECT_THROW(resampler.Init(outputRate, inputRate), std::invalid_argument)
        << inputRate << " to " << outputRate;
  }
  EXPECT_THROW(resampler.Init(1, 1, {.taps = 17}), std::invalid_argument);
  EXPECT_THROW(resampler.Init(1, 1, {.phaseShift = -1}), std::invalid_argument);
  EXPECT_THROW(resampler.SetStride(0), std::invalid_argument);
  EXPECT_THROW(resampler.SetCompensation(100, 100), std::invalid_argument);
  EXPECT_EQ(resampler.context(), context);
  EXPECT_EQ(context->compensationDistance, 0);
}

using qorp::BuildFilter;
using qorp::kFilterScale;

constexpr std::int32_t kPhases = 1024;

TEST(FilterBank, HasUnitGainAndBoundedSumsInEveryPhaseAndPassesASampleOnItsPlace) {
  // The second one is where magnitudes grow largest.
  for (const auto& [factor, taps] : {std::pair(1.0, 16),
                                     {0.99999, 17},
                                     {44100.0 / 48000, 18},
                                     {0.5, 32},
                                     {11025.0 / 48000, 70},
                                     {1.0 / 24, 384},
                                     {1.0, 1},
                                     {1.0, 2}}) {
    const auto bank = BuildFilter(factor, taps, kPhases);
    ASSERT_EQ(bank.size(), static_cast<std::size_t>(taps) * (kPhases + 1));
    for (auto filter = bank.begin(); filter != bank.end(); filter += taps) {
      const auto magnitude = [](std::int32_t sum, std::int16_t each) {
        return sum + std::abs(each);
      };
      ASSERT_NEAR(std::accumulate(filter, filter + taps, 0), kFilterScale, 1) << factor;
      ASSERT_LT(std::accumulate(filter, filter + taps, 0, magnitude), 2 * kFilterScale) << factor;
    }
  }
  // Phase 0 is the sample at the centre; what 16 bits cannot hold of it went to the next tap. The
  // guard filter is phase 0 of the next sample.
  const auto bank = BuildFilter(1.0, 16, kPhases);
  const Samples first{0, 0, 0, 0, 0, 0, 0, 32767, 1, 0, 0, 0, 0, 0, 0, 0};
  const Samples guard{0, 0, 0, 0, 0, 0, 0, 0, 32767, 1, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(Samples(bank.begin(), bank.begin() + 16), first);
  EXPECT_EQ(Samples(bank.end() - 16, bank.end()), guard);
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
