// What listeners would hear: noise beside a tone, and the loudness of tones over the pass band.
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "audio/audio_resampler.h"

namespace {

constexpr double kAmplitude = 26000;

struct Tone {
  double gain;           // dB
  double signalToNoise;  // dB; all that is not the tone is noise
};

// Resamples a second of a tone and fits a sine of its frequency to the result.
Tone MeasureTone(double frequency, std::int32_t inputRate, std::int32_t outputRate, bool linear) {
  const double inputStep = 2 * std::numbers::pi * frequency / inputRate;
  std::vector<std::int16_t> source(static_cast<std::size_t>(inputRate) + 4000);
  for (std::size_t i = 0; i < source.size(); ++i) {
    source[i] = static_cast<std::int16_t>(
        std::lrint(kAmplitude * std::sin(inputStep * static_cast<double>(i))));
  }
  std::vector<std::int16_t> out(static_cast<std::size_t>(outputRate) + 8000);
  qorp::AudioResampler resampler;
  resampler.Init(outputRate, inputRate, {.linear = linear});
  std::int32_t consumed = 0;
  const std::int32_t written = resampler.Resample(out.data(), source.data(), consumed,
                                                  static_cast<std::int32_t>(source.size()),
                                                  static_cast<std::int32_t>(out.size()), true);
  constexpr std::int32_t kSettled = 1000;
  const std::int32_t end = kSettled + outputRate;
  EXPECT_GE(written, end);

  // Over a whole number of periods sine and cosine are orthogonal.
  const double step = 2 * std::numbers::pi * frequency / outputRate;
  double sine = 0;
  double cosine = 0;
  for (std::int32_t i = kSettled; i < end; ++i) {
    sine += out[static_cast<std::size_t>(i)] * std::sin(step * i) * 2 / outputRate;
    cosine += out[static_cast<std::size_t>(i)] * std::cos(step * i) * 2 / outputRate;
  }
  double signal = 0;
  double noise = 0;
  for (std::int32_t i = kSettled; i < end; ++i) {
    const double fitted = sine * std::sin(step * i) + cosine * std::cos(step * i);
    const double error = out[static_cast<std::size_t>(i)] - fitted;
    signal += fitted * fitted;
    noise += error * error;
  }
  return {20 * std::log10(std::hypot(sine, cosine) / kAmplitude), 10 * std::log10(signal / noise)};
}

struct Conversion {
  std::int32_t inputRate;
  std::int32_t outputRate;
  double flatUpTo;  // Hz
};

class ResampledTone : public testing::TestWithParam<Conversion> {};

INSTANTIATE_TEST_SUITE_P(Rates, ResampledTone,
                         testing::Values(Conversion{48000, 44100, 13000},
                                         Conversion{44100, 48000, 13000},
                                         Conversion{48000, 24000, 7000}),
                         [](const auto& rates) {
                           return std::to_string(rates.param.inputRate) + "To" +
                                  std::to_string(rates.param.outputRate);
                         });

TEST_P(ResampledTone, KeepsItsLoudnessOverThePassBand) {
  const auto [inputRate, outputRate, flatUpTo] = GetParam();
  for (double frequency = 100; frequency <= flatUpTo; frequency += 300) {
    EXPECT_NEAR(MeasureTone(frequency, inputRate, outputRate, false).gain, 0, 0.003)
        << frequency << " Hz";
  }
}

TEST_P(ResampledTone, StandsClearOfNoise) {
  const auto [inputRate, outputRate, flatUpTo] = GetParam();
  // The nearest phase is up to 1/1024 of a sample away: noise that grows with the frequency.
  EXPECT_GT(MeasureTone(100, inputRate, outputRate, false).signalToNoise, 90);
  EXPECT_GT(MeasureTone(997, inputRate, outputRate, false).signalToNoise, 85);
  EXPECT_GT(MeasureTone(4001, inputRate, outputRate, false).signalToNoise, 74);
  EXPECT_GT(MeasureTone(flatUpTo, inputRate, outputRate, false).signalToNoise, 62);
  // Between two phases that is gone, and 16 bits are the limit.
  EXPECT_GT(MeasureTone(997, inputRate, outputRate, true).signalToNoise, 91);
  EXPECT_GT(MeasureTone(4001, inputRate, outputRate, true).signalToNoise, 88);
}

TEST(ResampledTone, IsRemovedWhenTheNewRateCannotHoldIt) {
  EXPECT_LT(MeasureTone(19000, 48000, 24000, false).gain, -80);
  // Beyond the transition band nothing of it comes back as another tone either: the output is
  // silence but for the last bits.
  std::vector<std::int16_t> source(48000);
  for (std::size_t i = 0; i < source.size(); ++i) {
    source[i] = static_cast<std::int16_t>(std::lrint(
        kAmplitude * std::sin(2 * std::numbers::pi * 19000 / 48000 * static_cast<double>(i))));
  }
  std::vector<std::int16_t> out(30000);
  qorp::AudioResampler resampler;
  resampler.Init(24000, 48000);
  std::int32_t consumed = 0;
  const std::int32_t written =
      resampler.Resample(out.data(), source.data(), consumed, 48000, 30000, true);
  ASSERT_GT(written, 20000);
  for (std::int32_t i = 100; i < written; ++i) {
    ASSERT_LE(std::abs(out[static_cast<std::size_t>(i)]), 3) << i;
  }
}

}  // namespace
