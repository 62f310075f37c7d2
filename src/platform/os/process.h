// The process: what it and its machine use, and how its heap keeps what was freed.
#pragma once

#include <cstdint>

namespace os {

// Times in 100 ns units, memory in bytes. What the system does not provide is 0.
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

// For a program that runs for months while decoders of all sizes come and go: large blocks live
// outside the heap and go back to the system when they are freed. Otherwise the C library raises
// the size from which it does so with every large block that is freed, frames end up between
// small things that stay, and the process grows for hours. Once, before the first thread; blocks of
// 256 KB and more then cost a call of the system each, so what needs many of them pools them.
void KeepLargeBlocksOutOfHeap();

}  // namespace os
