// Where the messages and the performance records of a wall go.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "host/config/diagnostics.h"
#include "host/units.h"

namespace host::config {

struct Endpoint {
  std::string host;
  std::uint16_t port = 0;

  bool operator==(const Endpoint&) const = default;
};

// As the arguments, the environment or a wall file give it; what none of them gives is left to the
// program.
struct LogOptions {
  std::optional<int> level;                       // 0 errors to 3 everything
  std::optional<std::filesystem::path> file;      // circular log file; empty: none
  std::optional<std::int32_t> size;               // bytes of each file; 0: no limit
  std::optional<Endpoint> syslog;                 // empty host: none
  std::optional<std::filesystem::path> perfFile;  // circular file of records; empty: none
  std::optional<Time> perfPeriod;                 // between two records
  Places places;                                  // of what a wall file gives
};

inline constexpr int kHighestLogLevel = 3;
inline constexpr Time kMinPerfPeriod = kSecond / 10;
inline constexpr Time kMaxPerfPeriod = 86'400 * kSecond;

// Of each option the first one that is given.
inline LogOptions FirstOf(LogOptions first, const LogOptions& second) {
  const auto fill = [](auto& option, const auto& other) {
    if (!option) {
      option = other;
    }
  };
  fill(first.level, second.level);
  fill(first.file, second.file);
  fill(first.size, second.size);
  fill(first.syslog, second.syslog);
  fill(first.perfFile, second.perfFile);
  fill(first.perfPeriod, second.perfPeriod);
  first.places = second.places;
  return first;
}

}  // namespace host::config
