#include "tests/support/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::uint64_t count = 0;
thread_local std::uint64_t failing = 0;  // the count at which a call fails

void* TryAllocate(std::size_t bytes) noexcept {
  if (++count == failing) {
    return nullptr;
  }
  return std::malloc(bytes == 0 ? 1 : bytes);
}

void* TryAllocate(std::size_t bytes, std::align_val_t alignment) noexcept {
  if (++count == failing) {
    return nullptr;
  }
  const auto boundary = static_cast<std::size_t>(alignment);
  return std::aligned_alloc(boundary, (bytes + boundary - 1) / boundary * boundary);
}

template <typename... Alignment>
void* Allocate(std::size_t bytes, Alignment... alignment) {
  void* const memory = TryAllocate(bytes, alignment...);
  return memory != nullptr ? memory : throw std::bad_alloc();
}

}  // namespace

// Those of arrays call these, or are all the sanitizer's own.
void* operator new(std::size_t bytes) {
  return Allocate(bytes);
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
  return Allocate(bytes, alignment);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return TryAllocate(bytes);
}
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return TryAllocate(bytes, alignment);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}

namespace support {

AllocationCount::AllocationCount() : start_(count) {}

std::uint64_t AllocationCount::Since() const {
  return count - start_;
}

FailingAllocation::FailingAllocation(std::uint64_t spared) {
  failing = count + spared + 1;
}

FailingAllocation::~FailingAllocation() {
  failing = 0;
}

bool FailingAllocation::HasFailed() const {
  return count >= failing;
}

}  // namespace support
