// The parts of a performance report: PinTable counts the buffer-full events of each output pin,
// RestartMonitor decides from their rate whether the process should be restarted, PerformanceRecord
// is one comma-separated line for each report.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/os/mutex.h"

namespace qorp::log {

// At most one warning for each pin in this time.
inline constexpr std::uint32_t kBufferFullPeriod = 10000;  // ms

// Without a lock: its owner guards it. Ticks are milliseconds that wrap.
class PinTable {
 public:
  // In bytewise order of the names.
  using Counts = std::map<std::string, std::int32_t, std::less<>>;

  // Starts a pin at 0, also one that is already there. Its first period begins now.
  void Register(std::string_view name, std::uint32_t now);
  // Counts an event. Returns for how many events a warning is due, this one included; 0 for none. A
  // pin that was never registered is not counted and always due.
  std::uint32_t Count(std::string_view name, std::uint32_t now);

  Counts GetCounts() const;

 private:
  struct Pin {
    std::uint32_t count = 0;
    std::uint32_t lastWarning = 0;  // ticks
    std::uint32_t repeats = 0;      // events since then
  };

  std::map<std::string, Pin, std::less<>> pins_;
};

// Checks the rate on each tick: once it has reached the threshold in as many ticks in a row as the
// limit says, a restart is needed, permanently. Any thread; the lock guards everything and is never
// held with another.
class RestartMonitor {
 public:
  struct Rule {
    std::int32_t step = 1;              // what a tick adds to the time since the start
    std::int32_t warmUp = 6;            // until that time the rate is ignored
    std::int32_t deltaThreshold = 250;  // buffer-full events of all pins in one tick
    std::int32_t consecutiveLimit = 6;  // ticks
  };
  struct State {
    std::uint64_t lastDelta = 0;  // events in the last tick after the warm-up
    std::uint64_t consecutive = 0;
    bool needRestart = false;
  };

  explicit RestartMonitor(const Rule& rule) : rule_(rule) {}

  // One buffer-full event of any pin.
  void CountBufferFull();
  void Tick();
  State GetState() const;

 private:
  const Rule rule_;
  mutable os::Mutex lock_;
  std::uint64_t count_ GUARDED_BY(lock_) = 0;
  std::uint64_t previousCount_ GUARDED_BY(lock_) = 0;
  std::uint64_t elapsed_ GUARDED_BY(lock_) = 0;
  State state_ GUARDED_BY(lock_);
};

// The values of one line, in the order of the columns. Every field of a line, the last one
// included, is followed by a comma; there is no quoting.
struct PerformanceRecord {
  std::int64_t cpu = 0;             // percent of the machine
  std::int64_t totalCpu = 0;        // percent
  std::uint32_t workingSet = 0;     // bytes, modulo 2^32
  std::uint32_t privateBytes = 0;   // bytes, modulo 2^32
  std::uint32_t numBufferFull = 0;  // of all registered pins
  std::uint32_t numResync = 0;
  std::uint32_t numTsDiscontinuity = 0;
  std::uint64_t kernelTime = 0;  // of the process, 100 ns units
  std::uint64_t userTime = 0;
  std::int64_t date = 0;  // ms since 1970-01-01 UTC
  std::uint64_t numDecPictures = 0;
  std::uint32_t virtualSize = 0;  // committed bytes of the machine, modulo 2^32
  std::uint32_t handleCount = 0;
  std::uint32_t numPoliticChoices = 0;
  PinTable::Counts bufferFull;
  RestartMonitor::State restart;
};

// A pin that is registered after the header was written adds a value without a column name.
std::string FormatPerformanceHeader(const PinTable::Counts& pins);
std::string FormatPerformanceLine(const PerformanceRecord& record);

}  // namespace qorp::log
