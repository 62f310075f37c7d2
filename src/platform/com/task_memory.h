// The task allocator: memory that one module allocates and another one frees.
#pragma once

#include <cstdlib>
#include <memory>

#include "platform/com/types.h"

// Null when the memory is exhausted. An empty block is still a block of its own.
inline void* CoTaskMemAlloc(std::size_t bytes) {
  return std::malloc(bytes == 0 ? 1 : bytes);
}
// Null is allowed and ignored.
inline void CoTaskMemFree(void* memory) {
  std::free(memory);
}

struct TaskMemoryDeleter {
  void operator()(void* memory) const { CoTaskMemFree(memory); }
};
// Owns memory of the task allocator.
template <typename T>
using TaskMemory = std::unique_ptr<T, TaskMemoryDeleter>;
