// RecordingLogger: an ILogPerf that keeps what is reported to it.
#pragma once

#include <algorithm>
#include <array>
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
    int discontinuities = 0;
    int decodedPictures = 0;
  };

  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override {
    va_list arguments;
    va_start(arguments, format);
    std::array<char, 4096> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    const std::lock_guard guard(lock_);
    lines_.push_back({level, text.data()});
    changed_.notify_all();
  }
  void WriteReport() override {}
  void IncrementResync() override {}
  void IncrementTsDiscontinuity() override { Add(&Counters::discontinuities); }
  void IncrementDecodedPictures() override { Add(&Counters::decodedPictures); }
  void AddPoliticChoices(std::int32_t /*count*/) override {}
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
  // Each waits for 30 s at most; false if it did not happen: this many lines in all; a line of this
  // text; this many calls of NotifyBufferFull for a pin in all.
  bool WaitForLines(std::size_t count) const {
    return Wait([&] { return lines_.size() >= count; });
  }
  bool WaitForLine(const std::string& text) const {
    return Wait([&] {
      return std::any_of(lines_.begin(), lines_.end(),
                         [&](const Line& line) { return line.text == text; });
    });
  }
  bool WaitForBufferFull(const std::string& pinName, int count) const {
    return Wait([&] {
      const auto pin = bufferFull_.find(pinName);
      return pin != bufferFull_.end() && pin->second >= count;
    });
  }

 private:
  void Add(int Counters::*counter) {
    const std::lock_guard guard(lock_);
    ++(counters_.*counter);
  }
  template <typename Condition>
  bool Wait(Condition isSo) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(30), isSo);
  }

  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::vector<Line> lines_;
  Counters counters_;
  std::map<std::string, int> bufferFull_;
};
