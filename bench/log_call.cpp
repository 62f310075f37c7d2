// What one log() call costs its caller, against snprintf of the same message into a buffer of the
// same size. The ratio counts; no message of a measured burst is dropped.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "log/log_perf.h"

namespace {

constexpr const char* kFormat = "Composer audio/video #%d resynchronizes (+) (%d)";
constexpr int kBurst = 500;  // half of what the queue holds

class CountingSink final : public qorp::log::ILogSink {
 public:
  void Write(std::int32_t, const qorp::log::LogTime&, const char*) override {
    count_.fetch_add(1, std::memory_order_relaxed);
  }
  void WaitFor(std::uint64_t count) const {
    while (count_.load(std::memory_order_relaxed) < count) {
      std::this_thread::yield();
    }
  }

 private:
  std::atomic<std::uint64_t> count_{0};
};

template <typename Body>
double NanosecondsPerCall(Body body) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kBurst; ++i) {
    body();
  }
  const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
  return time.count() / kBurst;
}

double Median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Bursts of the two take turns, so that other load on the machine affects both. The worker takes
// messages during a burst, as it does in the program, and all of them before the next.
void LogCall(benchmark::State& state) {
  qorp::log::LogPerf logger;
  CountingSink sink;
  logger.AddSink(&sink);
  logger.Start();
  std::array<char, 1040> buffer;
  int number = 0;
  std::vector<double> plain;
  std::vector<double> logged;
  for (auto _ : state) {
    plain.push_back(NanosecondsPerCall([&] {
      std::snprintf(buffer.data(), buffer.size(), kFormat, 3, number);
      benchmark::DoNotOptimize(buffer);
    }));
    logged.push_back(
        NanosecondsPerCall([&] { logger.log(qorp::log::kWarning, kFormat, 3, ++number); }));
    state.SetIterationTime(logged.back() * kBurst / 1e9);
    sink.WaitFor(static_cast<std::uint64_t>(number));
  }
  logger.Stop();
  state.counters["snprintf_ns"] = Median(plain);
  state.counters["log_ns"] = Median(logged);
  state.counters["ratio"] = Median(logged) / Median(plain);
}

BENCHMARK(LogCall)->UseManualTime();

}  // namespace
