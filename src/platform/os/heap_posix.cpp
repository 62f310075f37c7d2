#include <malloc.h>

#include "platform/os/heap.h"

namespace os {

void KeepLargeBlocksOutOfHeap() {
  constexpr int kLargeBlock = 256 * 1024;
  // To set it is to keep it: it no longer follows the blocks that are freed.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread yet
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
}

}  // namespace os
