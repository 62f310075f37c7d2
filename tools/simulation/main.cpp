// Runs walls in simulated time and holds them against what must never happen.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/ffmpeg/log.h"
#include "host/graph/composer_filter.h"
#include "tools/simulation/simulated_wall.h"

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
  CLI11_PARSE(app, argc, argv);

  host::ffmpeg::RouteLog(host::ffmpeg::LogLevel::kError, {});
  const std::string library = host::FindComposerLibrary();
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
