// The resampler's outputs per second on one core, and next to it a plain loop over 16 taps: what
// one fixed filter over the same samples costs without any resampling.
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "audio/audio_resampler.h"

namespace {

constexpr std::int32_t kSourceSamples = 48000;

std::vector<std::int16_t> Noise() {
  std::mt19937 random(19700101);
  std::vector<std::int16_t> samples(kSourceSamples);
  for (std::int16_t& sample : samples) {
    sample = static_cast<std::int16_t>(random());
  }
  return samples;
}

void PlainSixteenTaps(benchmark::State& state) {
  const std::vector<std::int16_t> source = Noise();
  std::vector<std::int16_t> out(kSourceSamples - 15);
  const std::vector<std::int16_t> coefficients(16, 2048);
  for (auto _ : state) {
    benchmark::DoNotOptimize(source.data());
    benchmark::DoNotOptimize(coefficients.data());
    for (std::size_t i = 0; i < out.size(); ++i) {
      std::int32_t sum = 0;
      for (std::size_t tap = 0; tap < 16; ++tap) {
        sum += source[i + tap] * coefficients[tap];
      }
      out[i] = static_cast<std::int16_t>((sum + 16384) >> 15);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(out.size()));
}
BENCHMARK(PlainSixteenTaps);

// Arguments: input rate, output rate, linear.
void Resample(benchmark::State& state) {
  const std::vector<std::int16_t> source = Noise();
  std::vector<std::int16_t> out(7 * kSourceSamples);
  qorp::AudioResampler resampler;
  resampler.Init(static_cast<std::int32_t>(state.range(1)),
                 static_cast<std::int32_t>(state.range(0)), {.linear = state.range(2) != 0});
  std::int64_t outputs = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(source.data());
    std::int32_t consumed = 0;
    outputs += resampler.Resample(out.data(), source.data(), consumed, kSourceSamples,
                                  static_cast<std::int32_t>(out.size()), true);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(outputs);
}
BENCHMARK(Resample)
    ->ArgNames({"from", "to", "linear"})
    ->Args({48000, 48000, 0})
    ->Args({44100, 48000, 0})
    ->Args({48000, 44100, 0})
    ->Args({48000, 24000, 0})
    ->Args({48000, 8000, 0})
    ->Args({48000, 44100, 1});

void Init(benchmark::State& state) {
  qorp::AudioResampler resampler;
  for (auto _ : state) {
    resampler.Init(44100, 48000);
    benchmark::DoNotOptimize(resampler.context());
  }
}
BENCHMARK(Init)->Unit(benchmark::kMillisecond);

}  // namespace
