#include "render/kernels/drawing_kernels.h"

#include <array>
#include <atomic>

#include "render/kernels/vector_kernels.h"

namespace kernels {

namespace {

// What every processor of the architecture has.
namespace base {

void Blend(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
           const std::uint8_t* over, const std::uint8_t* alpha, std::ptrdiff_t overStride) {
  vectors::Blend<16>(to, stride, columns, rows, over, alpha, overStride);
}

void BlendConstant(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                   std::uint8_t over, std::uint8_t alpha) {
  vectors::BlendConstant<16>(to, stride, columns, rows, over, alpha);
}

void BlendLayers(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns, std::int32_t rows,
                 std::uint8_t over, const std::uint8_t* alphas, std::int32_t layers) {
  vectors::BlendLayers<16>(to, stride, columns, rows, over, alphas, layers);
}

constexpr DrawingKernels kKernels{"base", Blend, BlendConstant, BlendLayers};

}  // namespace base

#if defined(__x86_64__)

namespace avx2 {

#define TAVREL_AVX2 __attribute__((target("avx2")))

TAVREL_AVX2 void Blend(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                       std::int32_t rows, const std::uint8_t* over, const std::uint8_t* alpha,
                       std::ptrdiff_t overStride) {
  vectors::Blend<32>(to, stride, columns, rows, over, alpha, overStride);
}

TAVREL_AVX2 void BlendConstant(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                               std::int32_t rows, std::uint8_t over, std::uint8_t alpha) {
  vectors::BlendConstant<32>(to, stride, columns, rows, over, alpha);
}

TAVREL_AVX2 void BlendLayers(std::uint8_t* to, std::ptrdiff_t stride, std::int32_t columns,
                             std::int32_t rows, std::uint8_t over, const std::uint8_t* alphas,
                             std::int32_t layers) {
  vectors::BlendLayers<32>(to, stride, columns, rows, over, alphas, layers);
}

constexpr DrawingKernels kKernels{"avx2", Blend, BlendConstant, BlendLayers};

bool Runs() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") != 0;
}

}  // namespace avx2

#endif

// Constant-initialised, so that it is there before any other initialisation that draws.
std::atomic<const DrawingKernels*> chosen{nullptr};

}  // namespace

std::span<const DrawingKernels* const> AllKernels() {
#if defined(__x86_64__)
  static const std::array<const DrawingKernels*, 3> kAll{&ScalarKernels(), &base::kKernels,
                                                         &avx2::kKernels};
  static const std::size_t kCount = avx2::Runs() ? kAll.size() : kAll.size() - 1;
  return {kAll.data(), kCount};
#else
  static const std::array<const DrawingKernels*, 2> kAll{&ScalarKernels(), &base::kKernels};
  return kAll;
#endif
}

const DrawingKernels& CurrentKernels() {
  const DrawingKernels* current = chosen.load(std::memory_order_relaxed);
  return current != nullptr ? *current : *AllKernels().back();
}

void UseKernels(const DrawingKernels& kernels) {
  chosen.store(&kernels, std::memory_order_relaxed);
}

}  // namespace kernels
