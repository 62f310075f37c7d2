#include "audio/audio_resampler.h"

#include <algorithm>
#include <random>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using qorp::AudioResampler;
using qorp::ResamplingContext;
using testing::Each;
using testing::ElementsAre;
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

TEST(AudioResampler, StopsWhereTheNextFilterWouldReachBeyondTheSource) {
  AudioResampler resampler;
  resampler.Init(48000, 48000);
  EXPECT_EQ(resampler.context()->filterLength, 16);
  EXPECT_EQ(resampler.context()->index, -7168);
  const Samples source(100, 1000);
  Samples out(100, -1);
  std::int32_t consumed = -1;
  EXPECT_EQ(resampler.Resample(out.data(), source.data(), consumed, 100, 100, true), 92);
  EXPECT_EQ(consumed, 85);
  out.resize(92);
  EXPECT_THAT(out, Each(1000));
  EXPECT_EQ(resampler.context()->index, 0);
}

TEST(AudioResampler, MovesByTwoSamplesAtHalfTheRate) {
  AudioResampler resampler;
  resampler.Init(24000, 48000);
  EXPECT_EQ(resampler.context()->filterLength, 32);
  EXPECT_EQ(resampler.context()->index, -15360);
  EXPECT_EQ(resampler.inputRate(), 48000);
  EXPECT_EQ(resampler.outputRate(), 24000);
  // From place -15 in steps of two to 67, the last one that leaves 32 of 100 samples.
  const Samples source(100, -1000);
  Samples out(100, -1);
  std::int32_t consumed = -1;
  EXPECT_EQ(resampler.Resample(out.data(), source.data(), consumed, 100, 100, true), 42);
  EXPECT_EQ(consumed, 69);
  out.resize(42);
  EXPECT_THAT(out, Each(-1000));
}

TEST(AudioResampler, MirrorsTheSignalBeforeItsFirstSample) {
  AudioResampler resampler;
  resampler.Init(48000, 48000);
  Samples source(64);
  for (std::size_t i = 0; i < source.size(); ++i) {
    source[i] = static_cast<std::int16_t>(100 * i);
  }
  // At the same rate each output is the sample at the filter's centre: -7, -6, ... mirrored.
  Samples out = ResampleAtOnce(resampler, source);
  out.resize(16);
  EXPECT_THAT(out, ElementsAre(0, 100, 200, 300, 400, 500, 600, 700, 800, 900, 1000, 1100, 1200,
                               1300, 1400, 1500));
  // Place -7 with its centre tap on sample 0; a source of three samples is gone round several
  // times.
  resampler.Init(48000, 48000);
  std::int32_t consumed = -1;
  EXPECT_EQ(resampler.Resample(out.data(), source.data(), consumed, 3, 16, false), 7);
  EXPECT_EQ(consumed, 0);
  EXPECT_EQ(out[3], 0);
  EXPECT_EQ(out[4], 100);
  // Nothing comes out of nothing.
  EXPECT_EQ(resampler.Resample(out.data(), source.data(), consumed, 0, 16, true), 0);
  EXPECT_EQ(resampler.context()->index, -7168);
}

// One output after the other, all cases in one loop: slow, and easy to compare with the idea.
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
  const Samples source = Noise(700);
  for (const auto& [outputRate, inputRate] :
       {std::pair{48000, 48000}, {44100, 48000}, {48000, 44100}, {11025, 48000}, {22050, 8000}}) {
    for (const bool linear : {false, true}) {
      // None, one that ends before the first sample, one in the midst, one that outlasts the
      // source.
      for (const std::int32_t distance : {0, 5, 60, 100000}) {
        for (const std::size_t capacity : {std::size_t{5}, std::size_t{60}, std::size_t{5000}}) {
          AudioResampler resampler;
          resampler.Init(outputRate, inputRate, {.linear = linear});
          resampler.SetCompensation(distance / 4, distance);
          ResamplingContext context = *resampler.context();
          const Samples expected = PlainResample(context, source, capacity);
          Samples out(capacity);
          std::int32_t consumed = 0;
          out.resize(static_cast<std::size_t>(resampler.Resample(
              out.data(), source.data(), consumed, Count(source), Count(out), true)));
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
        // The room is often smaller than what the piece would give.
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

TEST(AudioResampler, StartsFromTheSamePlaceAgainWithoutUpdate) {
  const Samples source = Noise(300);
  AudioResampler resampler;
  resampler.Init(44100, 48000);
  resampler.SetCompensation(3, 200);
  Samples first(400);
  Samples second(400);
  std::int32_t consumed = 0;
  const std::int32_t written =
      resampler.Resample(first.data(), source.data(), consumed, 300, 400, false);
  EXPECT_GT(written, 200);
  const std::int32_t consumedBefore = consumed;
  EXPECT_EQ(resampler.Resample(second.data(), source.data(), consumed, 300, 400, false), written);
  EXPECT_EQ(consumed, consumedBefore);
  EXPECT_EQ(first, second);
  EXPECT_EQ(resampler.context()->compensationDistance, 200);
}

TEST(AudioResampler, TakesEveryNthSampleWithAStride) {
  for (const bool linear : {false, true}) {
    AudioResampler resampler;
    const Samples mono = Noise(1000);
    resampler.Init(44100, 48000, {.linear = linear});
    const Samples expected = ResampleAtOnce(resampler, mono);

    Samples interleaved(3 * mono.size(), 12345);
    for (std::size_t i = 0; i < mono.size(); ++i) {
      interleaved[3 * i + 1] = mono[i];
    }
    resampler.Init(44100, 48000, {.linear = linear});
    resampler.SetStride(3);
    Samples out(3 * expected.size() + 30, 777);
    std::int32_t consumed = 0;
    const std::int32_t written =
        resampler.Resample(out.data() + 1, interleaved.data() + 1, consumed, Count(mono),
                           static_cast<std::int32_t>(expected.size()) + 9, true);
    ASSERT_EQ(written, Count(expected));
    for (std::size_t i = 0; i < out.size(); ++i) {
      const bool ours = i % 3 == 1 && i / 3 < expected.size();
      ASSERT_EQ(out[i], ours ? expected[i / 3] : 777) << i;
    }
    resampler.Init(44100, 48000);
    EXPECT_EQ(resampler.stride(), 1);
  }
}

TEST(AudioResampler, ClampsWhatRingsBeyondFullScale) {
  Samples square(400);
  for (std::size_t i = 0; i < square.size(); ++i) {
    square[i] = (i / 20) % 2 == 0 ? 32767 : -32768;
  }
  for (const bool linear : {false, true}) {
    AudioResampler resampler;
    resampler.Init(96000, 44100, {.linear = linear});
    const Samples out = ResampleAtOnce(resampler, square);
    // A wrapped overshoot would stand as a low sample amid high ones.
    EXPECT_EQ(*std::max_element(out.begin(), out.end()), 32767);
    EXPECT_EQ(*std::min_element(out.begin(), out.end()), -32768);
    std::int32_t edges = 0;
    for (std::size_t i = 1; i < out.size(); ++i) {
      edges += (out[i] < 0) != (out[i - 1] < 0) ? 1 : 0;
    }
    EXPECT_LE(edges, 20);
  }
}

TEST(AudioResampler, HidesSamplesWhileACompensationLasts) {
  const Samples source = Noise(48000);
  const auto writtenWith = [&](std::int32_t delta, std::int32_t distance) {
    AudioResampler resampler;
    resampler.Init(48000, 48000);
    resampler.SetCompensation(delta, distance);
    const std::int32_t written = Count(ResampleAtOnce(resampler, source));
    EXPECT_EQ(resampler.context()->compensationDistance, 0);
    EXPECT_EQ(resampler.context()->dstIncr, resampler.context()->idealDstIncr);
    return written;
  };
  const std::int32_t ideal = writtenWith(0, 0);
  EXPECT_EQ(writtenWith(10, 4800), ideal + 10);
  EXPECT_EQ(writtenWith(-10, 4800), ideal - 10);

  // In pieces, what is left of the distance goes on in the next call.
  AudioResampler resampler;
  resampler.Init(48000, 48000);
  resampler.SetCompensation(10, 100);
  Samples out(60);
  std::int32_t consumed = 0;
  ASSERT_EQ(resampler.Resample(out.data(), source.data(), consumed, 1000, 60, true), 60);
  EXPECT_EQ(resampler.context()->compensationDistance, 40);
  EXPECT_EQ(resampler.context()->dstIncr, 48000 * 1024 / 10 * 9);
  ASSERT_EQ(resampler.Resample(out.data(), source.data(), consumed, 1000, 40, true), 40);
  EXPECT_EQ(resampler.context()->compensationDistance, 0);
  EXPECT_EQ(resampler.context()->dstIncr, 48000 * 1024);
  resampler.SetCompensation(10, 100);
  resampler.SetCompensation(0, 0);
  EXPECT_EQ(resampler.context()->compensationDistance, 0);
  EXPECT_EQ(resampler.context()->dstIncr, 48000 * 1024);
}

TEST(AudioResampler, PicksSamplesWithOneTapAndOnePhase) {
  const Samples source{0, 10, 20, 30, 40, 50, 60, 70, 80, 90};
  AudioResampler resampler;
  resampler.Init(3, 2, {.taps = 1, .phaseShift = 0});
  ASSERT_EQ(resampler.context()->filterLength, 1);
  Samples out(20, -1);
  std::int32_t consumed = 0;
  // Up to the sample before the last one: 9 * 3 / 2 outputs.
  ASSERT_EQ(resampler.Resample(out.data(), source.data(), consumed, 10, 20, true), 13);
  EXPECT_EQ(consumed, 8);
  out.resize(13);
  // The ratio is cut off after 32 bits, so that every third place falls a hair short of its sample.
  EXPECT_THAT(out, ElementsAre(0, 0, 10, 10, 20, 30, 30, 40, 50, 50, 60, 70, 70));
  EXPECT_EQ(resampler.Resample(out.data(), source.data(), consumed, 0, 13, true), 0);
  EXPECT_EQ(consumed, 0);
}

TEST(AudioResampler, RefusesWhatItCannotDoAndGoesOn) {
  AudioResampler resampler;
  Samples out(100);
  const Samples source(100, 500);
  std::int32_t consumed = 0;
  EXPECT_THROW(resampler.Resample(out.data(), source.data(), consumed, 100, 100, true),
               std::logic_error);
  EXPECT_THROW(resampler.SetCompensation(1, 100), std::logic_error);
  resampler.Init(44100, 48000);
  const ResamplingContext* const context = resampler.context();
  for (const auto& [outputRate, inputRate] :
       {std::pair{0, 48000}, {48000, 0}, {-1, 48000}, {48000, 2097152}, {1, 2097151}}) {
    EXPECT_THROW(resampler.Init(outputRate, inputRate), std::invalid_argument)
        << inputRate << " to " << outputRate;
  }
  EXPECT_THROW(resampler.Init(1, 1, {.taps = 0}), std::invalid_argument);
  EXPECT_THROW(resampler.Init(1, 1, {.taps = 17}), std::invalid_argument);
  EXPECT_THROW(resampler.Init(1, 1, {.phaseShift = 16}), std::invalid_argument);
  EXPECT_THROW(resampler.Init(1, 1, {.phaseShift = -1}), std::invalid_argument);
  EXPECT_THROW(resampler.SetStride(0), std::invalid_argument);
  EXPECT_THROW(resampler.SetCompensation(100, 100), std::invalid_argument);
  EXPECT_THROW(resampler.SetCompensation(1, -100), std::invalid_argument);
  EXPECT_EQ(resampler.context(), context);
  EXPECT_EQ(resampler.inputRate(), 48000);
  EXPECT_EQ(context->compensationDistance, 0);
}

}  // namespace
