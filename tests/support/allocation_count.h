// How many times a test program has allocated. Link tavrel_allocation_count.
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

}  // namespace support
