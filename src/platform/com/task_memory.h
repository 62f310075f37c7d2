// The task allocator: memory that one module allocates and another one frees.
#pragma once

#include <memory>

#include "platform/com/types.h"

// Null when the memory is exhausted.
void* CoTaskMemAlloc(std::size_t bytes);
// Null is allowed and ignored.
void CoTaskMemFree(void* memory);

struct TaskMemoryDeleter {
  void operator()(void* memory) const { CoTaskMemFree(memory); }
};
// Owns memory of the task allocator.
template <typename T>
using TaskMemory = std::unique_ptr<T, TaskMemoryDeleter>;
