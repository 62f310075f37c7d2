// RecordingLogger: an ILogPerf that keeps what it is told.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "log/i_log_perf.h"

// Any thread may log while the test reads. One lock guards everything.
class RecordingLogger final : public qorp::log::ILogPerf {
 public:
  struct Line {
    std::int32_t level;
    std::string text;
    bool operator==(const Line&) const = default;
  };
  struct Counters {
    int reports = 0;
    int resyncs = 0;
    int discontinuities = 0;
    int decodedPictures = 0;
    int politicChoices = 0;
    bool operator==(const Counters&) const = default;
  };

  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    const std::lock_guard guard(lock_);
    lines_.push_back({level, std::move(text)});
    changed_.notify_all();
  }
  void WriteReport() override { Add(&Counters::reports, 1); }
  void IncrementResync() override { Add(&Counters::resyncs, 1); }
  void IncrementTsDiscontinuity() override { Add(&Counters::discontinuities, 1); }
  void IncrementDecodedPictures() override { Add(&Counters::decodedPictures, 1); }
  void AddPoliticChoices(std::int32_t count) override { Add(&Counters::politicChoices, count); }
  void RegisterPin(const char* pinName) override {
    const std::lock_guard guard(lock_);
    bufferFull_[pinName] = 0;
  }
  // Counted for names that were never registered, too.
  void NotifyBufferFull(const char* pinName) override {
    const std::lock_guard guard(lock_);
    ++bufferFull_[pinName];
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
  Counters Counts() const {
    const std::lock_guard guard(lock_);
    return counters_;
  }
  // By pin name.
  std::map<std::string, int> BufferFull() const {
    const std::lock_guard guard(lock_);
    return bufferFull_;
  }
  void Forget() {
    const std::lock_guard guard(lock_);
    lines_.clear();
  }
  // Waits until at least count lines were logged; false when that takes longer than the limit.
  bool WaitForLines(std::size_t count,
                    std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit, [&] { return lines_.size() >= count; });
  }
  // Waits until a pin was told to be full that many times in all; false when that takes longer than
  // the limit.
  bool WaitForBufferFull(const std::string& pinName, int count,
                         std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit, [&] {
      const auto pin = bufferFull_.find(pinName);
      return pin != bufferFull_.end() && pin->second >= count;
    });
  }
  // Waits until a line of that text was logged; false when that takes longer than the limit.
  bool WaitForLine(const std::string& text,
                   std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit, [&] {
      return std::any_of(lines_.begin(), lines_.end(),
                         [&](const Line& line) { return line.text == text; });
    });
  }

 private:
  void Add(int Counters::*counter, int count) {
    const std::lock_guard guard(lock_);
    counters_.*counter += count;
    changed_.notify_all();
  }

  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::vector<Line> lines_;
  Counters counters_;
  std::map<std::string, int> bufferFull_;
};
