// ManualLogClock, a logger's clock that stands still until the test moves it, and RecordingSink, a
// sink that records what it gets, and that a test can block.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "log/log_line.h"
#include "platform/os/thread.h"

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

class RecordingSink final : public qorp::log::ILogSink {
 public:
  struct Line {
    std::int32_t level;
    std::int64_t milliseconds;
    std::string text;
    bool operator==(const Line&) const = default;
  };

  void Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) override {
    std::unique_lock guard(lock_);
    ++begun_;
    changed_.notify_all();
    changed_.wait(guard, [&] { return allowed_ > 0; });
    --allowed_;
    lines_.push_back({level, qorp::log::MillisecondsOf(time), text});
    changed_.notify_all();
  }

  // From now on, calls wait until they are let through.
  void HoldUp() {
    const std::lock_guard guard(lock_);
    allowed_ = 0;
  }
  void LetThrough(std::uint64_t calls = kAll) {
    const std::lock_guard guard(lock_);
    allowed_ += calls;
    changed_.notify_all();
  }

  std::vector<Line> Lines() const {
    const std::lock_guard guard(lock_);
    return lines_;
  }
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (Line& line : Lines()) {
      texts.push_back(std::move(line.text));
    }
    return texts;
  }
  // Wait until that many calls have ended, or begun; false when it takes longer than 60 s.
  bool WaitForLines(std::size_t count) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, kLimit, [&] { return lines_.size() >= count; });
  }
  bool WaitForCalls(std::size_t count) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, kLimit, [&] { return begun_ >= count; });
  }

 private:
  static constexpr std::uint64_t kAll = 1ULL << 62;
  static constexpr std::chrono::seconds kLimit{60};

  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::uint64_t allowed_ = kAll;
  std::size_t begun_ = 0;
  std::vector<Line> lines_;
};
