// qorp::ReopenDelay: how long to wait before something that failed is opened again.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <utility>

namespace qorp {

struct ReopenLimits {
  std::chrono::milliseconds min{250};
  std::chrono::milliseconds max{5'000};
};

// Doubles with every failure in a row, within the limits. One thread.
class ReopenDelay {
 public:
  using Milliseconds = std::chrono::milliseconds;

  explicit ReopenDelay(ReopenLimits limits = {}) : limits_(limits), next_(limits.min) {}
  // Each delay is spread by a fifth to both sides, differently for each seed, so that what failed
  // together does not come back together.
  ReopenDelay(ReopenLimits limits, std::uint32_t seed) : ReopenDelay(limits) {
    random_.emplace(seed);
  }

  Milliseconds AfterFailure() {
    return Spread(std::exchange(next_, std::min(next_ * 2, limits_.max)));
  }
  // The attempt has itself waited until its limit, which is no reason to wait longer: most sources
  // that wait notice their sender at once.
  Milliseconds AfterWaiting() { return Spread(limits_.min); }
  // It works: the next failure is the first of a row.
  void Reset() { next_ = limits_.min; }
  // It worked for that long before it failed; only what lasts as long as the longest delay counts.
  void ResetIfLasting(std::chrono::nanoseconds worked) {
    if (worked >= limits_.max) {
      Reset();
    }
  }

 private:
  Milliseconds Spread(Milliseconds delay) {
    if (!random_) {
      return delay;
    }
    const auto fifth = static_cast<std::uint32_t>(delay.count() / 5);
    // Not a distribution of the library: the same seed is to give the same delays everywhere.
    return std::clamp(delay - Milliseconds(fifth) + Milliseconds((*random_)() % (2 * fifth + 1)),
                      limits_.min, limits_.max);
  }

  ReopenLimits limits_;
  Milliseconds next_;
  std::optional<std::mt19937> random_;
};

}  // namespace qorp
