// FrameAllocator: buffers for frames whose size may change while they are sent.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "platform/baseclasses/media_sample.h"
#include "platform/com/com.h"

namespace host {

// As many samples as are asked for, without memory: a sample gets its block when it is given out
// (Fit), and keeps it for the next time if the size is still right. So a pool of a hundred samples
// costs the memory of those that were ever in use at once, and a window that was large gives its
// memory back when it is small again. Safe on any thread.
class FrameAllocator final : public CBaseAllocator {
 public:
  static ComPtr<FrameAllocator> Create();
  FrameAllocator();
  ~FrameAllocator() override;

  HRESULT ReleaseBuffer(IMediaSample* sample) override;

  // Of a sample that was given out and has not been handed on yet: a buffer of that many bytes,
  // aligned to 64. False when there is no memory.
  bool Fit(IMediaSample& sample, LONG bytes);
  // Frames have that many bytes from now on: free blocks of another size are given back, and those
  // that are in use when they return.
  void Expect(LONG bytes);

 protected:
  HRESULT Alloc() override REQUIRES(lock_);
  void Free() override REQUIRES(lock_);

 private:
  class Sample;

  std::vector<std::unique_ptr<Sample>> samples_;
  std::atomic<LONG> expected_{0};  // 0: any size
};

}  // namespace host
