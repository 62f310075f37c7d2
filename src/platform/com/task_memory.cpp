#include "platform/com/task_memory.h"

#include <cstdlib>

void* CoTaskMemAlloc(std::size_t bytes) {
  // An empty block is still a block of its own.
  return std::malloc(bytes == 0 ? 1 : bytes);
}

void CoTaskMemFree(void* memory) {
  std::free(memory);
}
