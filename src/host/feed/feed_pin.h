// FeedPin: an output pin of the host that feeds the composer. FrameAllocator: its buffers for
// frames whose size may change while the pin is connected.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/units.h"
#include "log/i_log_perf.h"
#include "platform/baseclasses/base_pin.h"
#include "platform/baseclasses/media_sample.h"
#include "platform/baseclasses/mtype.h"
#include "platform/com/com.h"
#include "util/exceptions.h"
#include "util/yv12.h"

namespace host {

// Its samples have no memory at first: a sample gets its block when it is used (Fit), and keeps the
// block while the size is right. So a pool of a hundred samples costs only the memory of those that
// were in use at the same time, and memory is released when a large window becomes small. Safe on
// any thread.
class FrameAllocator final : public CBaseAllocator {
 public:
  static ComPtr<FrameAllocator> Create();
  FrameAllocator();
  ~FrameAllocator() override;

  HRESULT ReleaseBuffer(IMediaSample* sample) override;

  // Gives a sample that the caller has got and not sent yet a buffer of this many bytes, aligned to
  // 64. False when there is no memory.
  bool Fit(IMediaSample& sample, LONG bytes);
  // Frames have this many bytes from now on: free blocks of another size are released at once,
  // those in use when their samples return.
  void Expect(LONG bytes);

 protected:
  HRESULT Alloc() override REQUIRES(lock_);
  void Free() override REQUIRES(lock_);

 private:
  class Sample;

  std::vector<std::unique_ptr<Sample>> samples_;
  std::atomic<LONG> expected_{0};  // 0: any size
};

// A failed operation of the graph, and the reason.
class GraphError : public TavrelException {
 public:
  GraphError(std::string_view what, HRESULT hr);
  explicit GraphError(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

// Throws GraphError for a failed result. what: the operation ("connect ...").
inline void Check(HRESULT hr, std::string_view what) {
  if (FAILED(hr)) {
    throw GraphError(what, hr);
  }
}

// Offers one media type and brings its own allocator. Owned by its filter; connected on the
// application's thread, fed by the filter's streaming thread.
class FeedPin final : public CBaseOutputPin {
 public:
  struct Buffers {
    LONG count = 4;
    LONG bytes = 1;  // in each
  };

  FeedPin(CBaseFilter* filter, CCritSec* lock, LPCWSTR name, CMediaType type, Buffers buffers);
  ~FeedPin() override;

  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetMediaType(int position, CMediaType* type) override;
  HRESULT DecideAllocator(IMemInputPin* pin, IMemAllocator** allocator) override;
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;

  // Sets the allocator of the next connection; without it, the pin makes one of plain memory.
  void UseAllocator(ComPtr<IMemAllocator> allocator) { ownAllocator_ = std::move(allocator); }
  // The same for frames whose size may change: see NewFrame.
  void UseFrames(ComPtr<FrameAllocator> frames) {
    frames_ = std::move(frames);
    ownAllocator_ = ComPtr<IMemAllocator>(frames_.Get());
  }
  // Changes the type that AttachType attaches, and the frame size, while the pin is connected.
  // Streaming thread.
  void ChangeType(CMediaType type, LONG bytes);

  // Registers the pin with a logger (not owned) and from now on reports to it whenever no buffer is
  // free: the receiver is full. Before the filter runs.
  void ReportTo(qorp::log::ILogPerf* logger, const std::string& pinName);

  // A free buffer with these times; with wait, waits for one. Null when none is free, the pin is
  // not connected, or the filter stops.
  ComPtr<IMediaSample> NewSample(Time start, Time stop, bool wait);
  // Attaches the pin's type to a sample.
  void AttachType(IMediaSample& sample) { sample.SetMediaType(&type_); }
  // As NewSample, with a buffer of exactly this many bytes.
  ComPtr<IMediaSample> NewFrame(Time start, Time stop, bool wait, LONG bytes);
  // Sends a copy of the bytes as one sample, with its times also as media times. False when no
  // buffer is free, or the receiver refuses the sample. Never waits. newType: the type of this
  // sample and those after it, if it differs from the one before.
  bool Send(std::span<const std::uint8_t> bytes, Time start, Time stop,
            const CMediaType* newType = nullptr);

 private:
  CMediaType type_;
  Buffers buffers_;
  ComPtr<IMemAllocator> ownAllocator_;
  ComPtr<FrameAllocator> frames_;          // the same allocator; null unless UseFrames was called
  qorp::log::ILogPerf* logger_ = nullptr;  // null: no reports
  std::string pinName_;
};

// YV12 frames with a VIDEOINFOHEADER2. width, height: pixels, even; aspect: display aspect.
CMediaType VideoType(int width, int height, Ratio frameRate, Ratio aspect);
// The three side streams of a channel.
CMediaType LabelType();
CMediaType AudioAlarmType();
CMediaType VideoAlarmType();

// Bytes of a packed YV12 frame.
constexpr LONG FrameBytes(int width, int height) {
  return static_cast<LONG>(qorp::PictureBytes(width, height));
}

}  // namespace host
