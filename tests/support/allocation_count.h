// How many times a test program has allocated, and allocations that fail. Link
// tavrel_allocation_count.
#pragma once

#include <cstdint>

namespace support {

// Calls of operator new on this thread since the object was made.
class AllocationCount {
 public:
  AllocationCount();
  std::uint64_t Since() const;

 private:
  std::uint64_t start_;
};

// While it exists, one call of operator new on this thread fails: the one after `spared` others.
class FailingAllocation {
 public:
  explicit FailingAllocation(std::uint64_t spared);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
  bool HasFailed() const;
};

}  // namespace support
