// Runs walls in simulated time and checks them for what must never happen.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/ffmpeg/error.h"
#include "host/session/composer_filter.h"
#include "tools/simulation/long_run.h"
#include "tools/simulation/simulated_wall.h"

namespace {

// Frames of a source are counted in 32 bits here.
constexpr double kMaxYears = 2;

int RunYears(double years, const std::string& only, const std::string& library) {
  using Violations = std::vector<std::string>;
  const auto length = static_cast<host::Time>(years * 365 * 24 * 3600) * host::kSecond;
  const std::vector<std::pair<const char*, std::function<Violations()>>> runs{
      {"wall", [&] { return simulation::LongWall(length, library); }},
      {"transport stream", [&] { return simulation::LongStream(length, "mpegts"); }},
      {"fragmented MP4", [&] { return simulation::LongStream(length, "mp4"); }},
      {"FLV recording", [&] { return simulation::LongRecording(length); }}};
  bool broken = false;
  // One after the other: the heap is one.
  for (const auto& [name, run] : runs) {
    if (std::string_view(name).find(only) == std::string_view::npos) {
      continue;
    }
    const auto begun = std::chrono::steady_clock::now();
    const Violations violations = run();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    std::printf("%s: %.2f years in %.1f s, %s\n", name, years, took.count(),
                violations.empty() ? "nothing broken" : "broken:");
    for (const std::string& violation : violations) {
      std::printf("  %s\n", violation.c_str());
    }
    std::fflush(stdout);
    broken = broken || !violations.empty();
  }
  return broken ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Simulated walls, each decided by one seed. A seed that breaks one is shrunk.");
  std::uint64_t first = 1;
  std::uint64_t seeds = 100;
  double minutes = 10;
  unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
  bool describe = false;
  bool shrink = true;
  app.add_option("--first", first, "the first seed")->capture_default_str();
  app.add_option("--seeds", seeds, "how many seeds")->capture_default_str();
  app.add_option("--minutes", minutes, "simulated time of each")->capture_default_str();
  app.add_option("--jobs", jobs, "how many at once")->capture_default_str();
  app.add_flag("--describe", describe, "say what happens in each");
  app.add_flag("--shrink,!--no-shrink", shrink, "shrink a seed that breaks a wall");
  double years = 0;
  std::string only;
  app.add_option("--years", years,
                 "instead of seeds: runs of that length, each with the same objects from begin to "
                 "end. A wall at 59.94 frames per second is awake around every wrap of a timestamp "
                 "and where products of times and rates leave 64 bits, and asleep in between; an "
                 "endless transport stream and an endless fragmented MP4 are written and read with "
                 "a frame every eight seconds; FLV is recorded with a frame every minute. Times "
                 "must be right and the heap flat throughout")
      ->check(CLI::Range(0.0, kMaxYears));
  app.add_option("--only", only, "of --years, the runs with that in their names");
  CLI11_PARSE(app, argc, argv);

  host::ffmpeg::RouteLog(host::ffmpeg::LogLevel::kError, {});
  const std::string library = host::FindComposerLibrary();
  if (years > 0) {
    return RunYears(years, only, library);
  }
  const auto length = static_cast<host::Time>(minutes * 60 * host::kSecond);
  const auto begun = std::chrono::steady_clock::now();
  std::atomic<std::uint64_t> next{first};
  std::uint64_t broken = 0;
  std::mutex lock;
  const auto work = [&] {
    for (std::uint64_t seed = next++; seed < first + seeds; seed = next++) {
      const simulation::Scenario scenario = simulation::MakeScenario(seed, length);
      if (describe) {
        const std::lock_guard guard(lock);
        std::cout << simulation::Describe(scenario);
      }
      const std::vector<std::string> violations = simulation::Violations(scenario, library);
      if (violations.empty()) {
        continue;
      }
      const simulation::Scenario least = shrink ? simulation::Shrink(scenario, library) : scenario;
      const std::lock_guard guard(lock);
      ++broken;
      std::cout << "seed " << seed << " breaks the wall:\n";
      for (const std::string& violation : violations) {
        std::cout << "  " << violation << "\n";
      }
      if (shrink) {
        std::cout << "shrunk to " << simulation::Describe(least);
        for (const std::string& violation : simulation::Violations(least, library)) {
          std::cout << "  " << violation << "\n";
        }
      }
      std::cout.flush();
    }
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < jobs; ++i) {
    threads.emplace_back(work);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
  std::printf("%llu seeds of %.1f minutes in %.1f s, %llu broken\n",
              static_cast<unsigned long long>(seeds), minutes, took.count(),
              static_cast<unsigned long long>(broken));
  return broken == 0 ? 0 : 1;
}
