// AnchorSample: a frame that sets a channel's time in the composer.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "host/units.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"

namespace host {

// The composer takes the timestamp of a discontinuity for its present time, and shows that frame a
// fixed latency later. A wall with a shorter delay anchors its channels with a timestamp that lies
// ahead by the difference: everything else is shown earlier by as much. The anchor itself would
// then stand among frames that are still to come, and be shown in place of one of them. So it goes
// to its own time once it has set the clock.
//
// A frame of the video pin's allocator with timestamps of its own, which the composer only reads.
// Counted references; its times are moved on the streaming thread while the composition thread
// reads them.
class AnchorSample final : public CUnknown, public IMediaSample {
 public:
  DECLARE_IUNKNOWN

  // start: the timestamp at first. Null when there is no memory for it.
  static ComPtr<AnchorSample> Create(ComPtr<IMediaSample> frame, Time start) {
    return ComPtr<AnchorSample>(std::make_unique<AnchorSample>(std::move(frame), start).release());
  }
  AnchorSample(ComPtr<IMediaSample> frame, Time start)
      : CUnknown("anchor sample", nullptr), frame_(std::move(frame)), start_(start) {}

  void MoveTo(Time start) { start_ = start; }

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override {
    return iid == IID_IMediaSample ? GetInterface(static_cast<IMediaSample*>(this), object)
                                   : CUnknown::NonDelegatingQueryInterface(iid, object);
  }

  HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override {
    if (start == nullptr || stop == nullptr) {
      return E_POINTER;
    }
    *start = start_;
    *stop = *start + 1;
    return S_OK;
  }
  HRESULT SetTime(REFERENCE_TIME* /*start*/, REFERENCE_TIME* /*stop*/) override {
    return E_NOTIMPL;
  }

  HRESULT GetPointer(BYTE** buffer) override { return frame_->GetPointer(buffer); }
  LONG GetSize() override { return frame_->GetSize(); }
  HRESULT IsSyncPoint() override { return frame_->IsSyncPoint(); }
  HRESULT SetSyncPoint(BOOL is) override { return frame_->SetSyncPoint(is); }
  HRESULT IsPreroll() override { return frame_->IsPreroll(); }
  HRESULT SetPreroll(BOOL is) override { return frame_->SetPreroll(is); }
  LONG GetActualDataLength() override { return frame_->GetActualDataLength(); }
  HRESULT SetActualDataLength(LONG length) override { return frame_->SetActualDataLength(length); }
  HRESULT GetMediaType(AM_MEDIA_TYPE** type) override { return frame_->GetMediaType(type); }
  HRESULT SetMediaType(AM_MEDIA_TYPE* type) override { return frame_->SetMediaType(type); }
  HRESULT IsDiscontinuity() override { return frame_->IsDiscontinuity(); }
  HRESULT SetDiscontinuity(BOOL is) override { return frame_->SetDiscontinuity(is); }
  HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return frame_->GetMediaTime(start, stop);
  }
  HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) override {
    return frame_->SetMediaTime(start, stop);
  }

 private:
  const ComPtr<IMediaSample> frame_;
  std::atomic<Time> start_;
};

}  // namespace host
