#include "render/kernels/drawing_kernels.h"

#include <array>
#include <atomic>

namespace kernels {

namespace {

struct Versions {
  Versions() {
    if (const DrawingKernels* avx2 = Avx2Kernels()) {
      list[count++] = avx2;
    }
  }

  std::array<const DrawingKernels*, 3> list{&ScalarKernels(), &BaseKernels()};
  std::size_t count = 2;
};

// Null: the fastest.
std::atomic<const DrawingKernels*> chosen{nullptr};

}  // namespace

std::span<const DrawingKernels* const> AllKernels() {
  static const Versions kVersions;
  return {kVersions.list.data(), kVersions.count};
}

const DrawingKernels& CurrentKernels() {
  const DrawingKernels* current = chosen.load(std::memory_order_relaxed);
  return current != nullptr ? *current : *AllKernels().back();
}

void UseKernels(const DrawingKernels& kernels) {
  chosen.store(&kernels, std::memory_order_relaxed);
}

}  // namespace kernels
