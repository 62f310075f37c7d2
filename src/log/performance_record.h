// The performance record: one comma-separated line for each report.
#pragma once

#include <cstdint>
#include <string>

#include "log/pin_table.h"
#include "log/restart_monitor.h"

namespace qorp::log {

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
