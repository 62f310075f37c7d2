// ReopenDelay: how long to wait before a source is opened again.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>

namespace host {

// Doubles with every failure in a row, from a quarter of a second to five, and is spread by a fifth
// to both sides, so that channels that failed together do not come back together. An attempt that
// has itself waited for the source until its limit is no reason to wait longer: the next one begins
// soon, because most sources that wait notice their sender at once. One thread.
class ReopenDelay {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kMin{250};
  static constexpr Milliseconds kMax{5000};

  explicit ReopenDelay(std::uint32_t seed) : random_(seed) {}

  // The source has given video or audio.
  void Reset() { next_ = kMin; }
  Milliseconds AfterFailure() {
    const Milliseconds delay = next_;
    next_ = std::min(next_ * 2, kMax);
    return Spread(delay);
  }
  Milliseconds AfterWaiting() { return Spread(kMin); }

 private:
  Milliseconds Spread(Milliseconds delay) {
    const auto fifth = static_cast<std::uint32_t>(delay.count() / 5);
    // Not a distribution of the library: the same seed is to give the same delays everywhere.
    return std::clamp(delay - Milliseconds(fifth) + Milliseconds(random_() % (2 * fifth + 1)), kMin,
                      kMax);
  }

  std::mt19937 random_;
  Milliseconds next_ = kMin;
};

}  // namespace host
