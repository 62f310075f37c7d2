// What the process and the machine use.
#pragma once

#include <cstdint>

namespace os {

// Times in 100 ns units, memory in bytes. What the system does not tell is 0.
struct SystemStatistics {
  std::uint64_t processKernelTime = 0;  // of all threads, since the process started
  std::uint64_t processUserTime = 0;
  std::uint64_t workingSet = 0;       // of the process, in physical memory
  std::uint64_t privateBytes = 0;     // of the process alone, in physical memory or swapped out
  std::uint64_t commitTotal = 0;      // of the machine: physical memory and swap
  std::uint64_t commitAvailable = 0;  // of that, what could still be given out
  std::uint32_t handleCount = 0;      // open descriptors of the process
  std::uint64_t idleTime = 0;         // of all processors, since the machine started
  std::uint64_t kernelTime = 0;       // includes the idle time
  std::uint64_t userTime = 0;
};

SystemStatistics ReadSystemStatistics();

}  // namespace os
