// FeedPin: an output pin of the host that feeds the composer. FrameAllocator: its buffers for
// frames whose size may change while they are sent.
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

// What could not be done in the graph, and why.
class GraphError : public TavrelException {
 public:
  GraphError(std::string_view what, HRESULT hr);
  explicit GraphError(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

// Throws GraphError for a failed result; what says what was being done ("connect ...").
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

  // The allocator for the next connection; without it the pin makes one of plain memory.
  void UseAllocator(ComPtr<IMemAllocator> allocator) { ownAllocator_ = std::move(allocator); }
  // The same for frames, whose size may change: see NewFrame.
  void UseFrames(ComPtr<FrameAllocator> frames) {
    frames_ = std::move(frames);
    ownAllocator_ = ComPtr<IMemAllocator>(frames_.Get());
  }
  // Frames of the type and size that follow, while the pin is connected: what AttachType attaches.
  // Streaming thread.
  void ChangeType(CMediaType type, LONG bytes);

  // Registers the pin with a logger, not owned, and from now on tells it of every time that no
  // buffer is free: what comes after the pin is full. Before the filter runs.
  void ReportTo(qorp::log::ILogPerf* logger, const std::string& pinName);

  // A free buffer with these times, waiting for one when wait is set. Null when there is none: none
  // is free, the pin is not connected, or the filter stops.
  ComPtr<IMediaSample> NewSample(Time start, Time stop, bool wait);
  // Makes a sample carry the type that the pin offers.
  void AttachType(IMediaSample& sample) { sample.SetMediaType(&type_); }
  // The same for a frame of that many bytes, whose buffer has exactly that size.
  ComPtr<IMediaSample> NewFrame(Time start, Time stop, bool wait, LONG bytes);
  // Sends a copy of the bytes as one sample, with its times as its media times, too; false when
  // there is no buffer for it, or the receiver refuses it. Never waits. newType: the type of this
  // sample and those that follow, where it differs from that of the connection.
  bool Send(std::span<const std::uint8_t> bytes, Time start, Time stop,
            const CMediaType* newType = nullptr);

 private:
  CMediaType type_;
  Buffers buffers_;
  ComPtr<IMemAllocator> ownAllocator_;
  ComPtr<FrameAllocator> frames_;          // the same one, of a pin for frames
  qorp::log::ILogPerf* logger_ = nullptr;  // null: nobody is notified
  std::string pinName_;
};

// YV12 frames with a VIDEOINFOHEADER2. width, height in pixels, even; aspect is the display
// aspect.
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
