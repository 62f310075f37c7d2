#include <malloc.h>

#include "platform/os/heap.h"

namespace os {

void KeepLargeBlocksOutOfHeap() {
  constexpr int kLargeBlock = 256 * 1024;
  // To set it is to keep it: it no longer follows the blocks that are freed.
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
}

}  // namespace os
