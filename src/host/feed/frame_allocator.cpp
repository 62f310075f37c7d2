#include "host/feed/frame_allocator.h"

#include <cstdlib>

namespace host {
namespace {

constexpr std::size_t kAlignment = 64;

struct FreeBlock {
  void operator()(BYTE* block) const { std::free(block); }
};

}  // namespace

class FrameAllocator::Sample final : public CMediaSample {
 public:
  Sample(CBaseAllocator* allocator, HRESULT* hr)
      : CMediaSample("frame sample", allocator, hr, nullptr, 0) {}

  bool Fit(LONG bytes) {
    if (GetSize() == bytes) {
      return true;
    }
    Clear();
    const std::size_t whole =
        (static_cast<std::size_t>(bytes) + kAlignment - 1) / kAlignment * kAlignment;
    block_.reset(static_cast<BYTE*>(std::aligned_alloc(kAlignment, whole)));
    if (block_ == nullptr) {
      return false;
    }
    SetPointer(block_.get(), bytes);
    return true;
  }
  void Clear() {
    block_.reset();
    SetPointer(nullptr, 0);
  }

 private:
  std::unique_ptr<BYTE, FreeBlock> block_;
};

FrameAllocator::FrameAllocator() : CBaseAllocator("frame allocator", nullptr, nullptr) {}
FrameAllocator::~FrameAllocator() = default;

ComPtr<FrameAllocator> FrameAllocator::Create() {
  return ComPtr<FrameAllocator>(std::make_unique<FrameAllocator>().release());
}

HRESULT FrameAllocator::Alloc() {
  const HRESULT hr = CBaseAllocator::Alloc();
  if (FAILED(hr)) {
    return hr;
  }
  samples_.reserve(static_cast<std::size_t>(m_properties.cBuffers));
  for (LONG i = 0; i < m_properties.cBuffers; ++i) {
    HRESULT made = S_OK;
    samples_.push_back(std::make_unique<Sample>(this, &made));
    AddFree(samples_.back().get());
  }
  return S_OK;
}

void FrameAllocator::Free() {
  ForgetFree();
  samples_.clear();
}

HRESULT FrameAllocator::ReleaseBuffer(IMediaSample* sample) {
  if (sample != nullptr) {
    const LONG expected = expected_;
    if (expected != 0 && sample->GetSize() != expected) {
      static_cast<Sample*>(sample)->Clear();
    }
  }
  return CBaseAllocator::ReleaseBuffer(sample);
}

bool FrameAllocator::Fit(IMediaSample& sample, LONG bytes) {
  return static_cast<Sample&>(sample).Fit(bytes);
}

void FrameAllocator::Expect(LONG bytes) {
  expected_ = bytes;
  const os::MutexLock guard(lock_);
  VisitFree([&](CMediaSample& sample) {
    if (sample.GetSize() != bytes) {
      static_cast<Sample&>(sample).Clear();
    }
  });
}

}  // namespace host
