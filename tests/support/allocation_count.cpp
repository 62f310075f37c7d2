#include "tests/support/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::uint64_t count = 0;

void* Allocate(std::size_t bytes) {
  ++count;
  if (void* memory = std::malloc(bytes == 0 ? 1 : bytes)) {
    return memory;
  }
  throw std::bad_alloc();
}

void* Allocate(std::size_t bytes, std::align_val_t alignment) {
  ++count;
  const auto boundary = static_cast<std::size_t>(alignment);
  if (void* memory = std::aligned_alloc(boundary, (bytes + boundary - 1) / boundary * boundary)) {
    return memory;
  }
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t bytes) {
  return Allocate(bytes);
}
void* operator new[](std::size_t bytes) {
  return Allocate(bytes);
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
  return Allocate(bytes, alignment);
}
void* operator new[](std::size_t bytes, std::align_val_t alignment) {
  return Allocate(bytes, alignment);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}

namespace support {

AllocationCount::AllocationCount() : start_(count) {}

std::uint64_t AllocationCount::Since() const {
  return count - start_;
}

}  // namespace support
