// ManualLogClock: a logger's clock that stands still until the test moves it.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "log/log_line.h"
#include "platform/os/waitable.h"

// Any thread reads it; one thread, the logger's worker, waits.
class ManualLogClock final : public qorp::log::LogClock {
 public:
  qorp::log::LogTime Now() override {
    const std::int64_t now = milliseconds_;
    return {now / 1000, static_cast<std::uint16_t>(now % 1000)};
  }
  std::uint32_t Ticks() override { return static_cast<std::uint32_t>(milliseconds_ - kStart); }
  std::uint32_t WaitAny(std::span<os::Waitable* const> objects, std::uint32_t start,
                        std::uint32_t milliseconds) override {
    std::vector<os::Waitable*> all(objects.begin(), objects.end());
    all.push_back(&moved_);
    while (true) {
      const bool reached = Ticks() - start >= milliseconds;
      const std::uint32_t index = os::WaitAny(all, reached ? 0 : os::kInfinite);
      if (index != objects.size()) {
        return index;
      }
    }
  }

  void Advance(std::int64_t milliseconds) {
    milliseconds_ += milliseconds;
    moved_.Set();
  }

 private:
  // Sunday 2025-11-16 09:43:14.123 UTC.
  static constexpr std::int64_t kStart = 1763286194123;

  std::atomic<std::int64_t> milliseconds_{kStart};
  os::Event moved_{os::Event::Reset::kAuto};
};
