// Scripted filters around the one under test: a source that sends what the test says, a sink that
// keeps what it gets, an allocator that grants less than asked.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/baseclasses/io_pins.h"

namespace fakes {

// A YV12 type of width x height with a VIDEOINFOHEADER2 (or a VIDEOINFOHEADER).
CMediaType Yv12Type(LONG width, LONG height, REFERENCE_TIME frameDuration = 400000);
CMediaType Yv12TypeWithPlainHeader(LONG width, LONG height, REFERENCE_TIME frameDuration = 400000);
CMediaType AudioType(const GUID& subtype);
CMediaType TypeOf(const GUID& major, const GUID& subtype);

// The type that a sample brings; not valid without one.
CMediaType TypeOf(IMediaSample* sample);
// Start and stop, as far as it has them; -1 without.
std::pair<REFERENCE_TIME, REFERENCE_TIME> TimesOf(IMediaSample* sample);

class SourcePin final : public CBaseOutputPin {
 public:
  SourcePin(CBaseFilter* filter, CCritSec* lock, HRESULT* hr);
  ~SourcePin() override { ReleasePeer(); }

  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetMediaType(int position, CMediaType* type) override;
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;
  HRESULT InitAllocator(IMemAllocator** allocator) override;
  HRESULT DecideAllocator(IMemInputPin* pin, IMemAllocator** allocator) override;

  std::vector<CMediaType> types;  // preferred types; any other one is refused
  bool acceptAny = false;         // unless this is set
  ALLOCATOR_PROPERTIES wanted{2, 64, 1, 0};
  ComPtr<IMemAllocator> allocator;  // used instead of the peer's when given
};

// A filter with one output pin. Owned by references like every filter.
class Source final : public CBaseFilter {
 public:
  static ComPtr<Source> Create();
  Source();
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

  // A sample of the agreed allocator with these times (none: untimed); commits the allocator if
  // needed. Fails the test when none is to be had.
  ComPtr<IMediaSample> NewSample(std::optional<REFERENCE_TIME> start = std::nullopt,
                                 std::optional<REFERENCE_TIME> stop = std::nullopt);
  HRESULT Send(IMediaSample* sample) { return pin.Deliver(sample); }

 private:
  CCritSec lock_;
  HRESULT hr_ = S_OK;

 public:
  SourcePin pin;
};

class SinkPin final : public CBaseInputPin {
 public:
  SinkPin(CBaseFilter* filter, CCritSec* lock, HRESULT* hr);

  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetMediaType(int position, CMediaType* type) override;
  HRESULT Receive(IMediaSample* sample) override;
  HRESULT GetAllocator(IMemAllocator** allocator) override;
  HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override;
  HRESULT EndOfStream() override;

  std::vector<CMediaType> types;  // preferred types
  std::function<HRESULT(const CMediaType&)> accepts = [](const CMediaType&) { return S_OK; };
  std::function<HRESULT(IMediaSample*)> onReceive;  // called for each sample; default keeps it
  std::optional<ALLOCATOR_PROPERTIES> requirements;
  ComPtr<IMemAllocator> ownAllocator;
  bool refuseOwnAllocator = false;  // GetAllocator fails
  std::atomic<int> endsOfStream{0};
};

// A filter with one input pin. Samples received are kept (referenced) in arrival order.
class Sink final : public CBaseFilter {
 public:
  static ComPtr<Sink> Create();
  Sink();
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

  // Waits until that many samples have come in all; false after ten seconds.
  bool WaitForSamples(std::size_t count);
  std::vector<ComPtr<IMediaSample>> Samples();
  std::size_t Count();
  void Forget();

  void Keep(IMediaSample* sample);

 private:
  CCritSec lock_;
  HRESULT hr_ = S_OK;
  std::mutex samplesLock_;
  std::condition_variable arrived_;
  std::vector<ComPtr<IMediaSample>> samples_;  // guarded by samplesLock_

 public:
  SinkPin pin;
};

// Grants at most a number of buffers, or refuses the request with an error.
class StingyAllocator : public CUnknown, public IMemAllocator {
 public:
  DECLARE_IUNKNOWN
  static ComPtr<StingyAllocator> Create(LONG mostBuffers, HRESULT refusal = S_OK);
  StingyAllocator(LONG mostBuffers, HRESULT refusal);
  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;
  HRESULT SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) override;
  HRESULT GetProperties(ALLOCATOR_PROPERTIES* properties) override;
  HRESULT Commit() override { return inner_->Commit(); }
  HRESULT Decommit() override { return inner_->Decommit(); }
  HRESULT GetBuffer(IMediaSample** sample, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                    DWORD flags) override {
    return inner_->GetBuffer(sample, start, stop, flags);
  }
  HRESULT ReleaseBuffer(IMediaSample* sample) override { return inner_->ReleaseBuffer(sample); }

 private:
  LONG mostBuffers_;
  HRESULT refusal_;
  ComPtr<IMemAllocator> inner_;
};

}  // namespace fakes
