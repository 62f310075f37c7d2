// Scripted filters around the one under test: a source that sends what the test says, a sink that
// keeps what it gets, an allocator that grants less than asked.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/baseclasses/base_pin.h"
#include "platform/dshow/vfw_errors.h"

namespace fakes {

inline constexpr CLSID kFakeClass{
    0x7D1C2B60, 0x33A1, 0x4B52, {0x9A, 0x10, 0x5E, 0x0C, 0x88, 0x41, 0x20, 0x01}};

inline CMediaType TypeOf(const GUID& major, const GUID& subtype) {
  CMediaType type(&major);
  type.SetSubtype(&subtype);
  type.SetFormatType(&FORMAT_None);
  return type;
}

inline CMediaType AudioType(const GUID& subtype) {
  return TypeOf(MEDIATYPE_Audio, subtype);
}

template <typename Header>
CMediaType Yv12TypeWith(const GUID& formatType, LONG width, LONG height,
                        REFERENCE_TIME frameDuration) {
  Header header{};
  header.AvgTimePerFrame = frameDuration;
  BITMAPINFOHEADER& bitmap = header.bmiHeader;
  bitmap.biSize = sizeof(bitmap);
  bitmap.biWidth = width;
  bitmap.biHeight = height;
  bitmap.biPlanes = 1;
  bitmap.biBitCount = 12;
  bitmap.biCompression = MakeFourcc('Y', 'V', '1', '2');
  bitmap.biSizeImage = static_cast<DWORD>(width) * static_cast<DWORD>(height) * 3 / 2;
  CMediaType type = TypeOf(MEDIATYPE_Video, MEDIASUBTYPE_YV12);
  type.SetFormatType(&formatType);
  type.SetFormat(reinterpret_cast<const BYTE*>(&header), sizeof(header));
  type.SetSampleSize(bitmap.biSizeImage);
  return type;
}

// With a VIDEOINFOHEADER2 or a VIDEOINFOHEADER.
inline CMediaType Yv12Type(LONG width, LONG height, REFERENCE_TIME frameDuration = 400000) {
  return Yv12TypeWith<VIDEOINFOHEADER2>(FORMAT_VideoInfo2, width, height, frameDuration);
}
inline CMediaType Yv12TypeWithPlainHeader(LONG width, LONG height,
                                          REFERENCE_TIME frameDuration = 400000) {
  return Yv12TypeWith<VIDEOINFOHEADER>(FORMAT_VideoInfo, width, height, frameDuration);
}

// The type that a sample brings; not valid without one.
inline CMediaType TypeOf(IMediaSample* sample) {
  OwnedMediaType type;
  return ReadMediaType(sample, &type) == S_OK && type ? CMediaType(*type) : CMediaType();
}

// Start and stop of a sample; -1 where it has none.
inline std::pair<REFERENCE_TIME, REFERENCE_TIME> TimesOf(IMediaSample* sample) {
  std::pair<REFERENCE_TIME, REFERENCE_TIME> times(-1, -1);
  sample->GetTime(&times.first, &times.second);
  return times;
}

inline HRESULT TypeAt(const std::vector<CMediaType>& types, int position, CMediaType* type) {
  if (position >= static_cast<int>(types.size())) {
    return VFW_S_NO_MORE_ITEMS;
  }
  *type = types[static_cast<std::size_t>(position)];
  return S_OK;
}

class SourcePin final : public CBaseOutputPin {
 public:
  SourcePin(CBaseFilter* filter, CCritSec* lock, HRESULT* hr)
      : CBaseOutputPin("source pin", filter, lock, hr, u"Output") {}
  ~SourcePin() override { ReleasePeer(); }

  HRESULT CheckMediaType(const CMediaType* type) override {
    return acceptAny || std::ranges::find(types, *type) != types.end() ? S_OK : S_FALSE;
  }
  HRESULT GetMediaType(int position, CMediaType* type) override {
    return TypeAt(types, position, type);
  }
  HRESULT DecideBufferSize(IMemAllocator* candidate, ALLOCATOR_PROPERTIES* request) override {
    request->cBuffers = std::max(request->cBuffers, wanted.cBuffers);
    request->cbBuffer = std::max(request->cbBuffer, wanted.cbBuffer);
    request->cbAlign = std::max(request->cbAlign, wanted.cbAlign);
    ALLOCATOR_PROPERTIES actual{};
    return candidate->SetProperties(request, &actual);
  }
  HRESULT InitAllocator(IMemAllocator** made) override {
    if (!allocator) {
      return CBaseOutputPin::InitAllocator(made);
    }
    *made = ComPtr<IMemAllocator>(allocator).Detach();
    return S_OK;
  }
  HRESULT DecideAllocator(IMemInputPin* input, IMemAllocator** decided) override {
    if (!allocator) {
      return CBaseOutputPin::DecideAllocator(input, decided);
    }
    ALLOCATOR_PROPERTIES request{};
    DecideBufferSize(allocator.Get(), &request);
    const HRESULT hr = input->NotifyAllocator(allocator.Get(), FALSE);
    *decided = SUCCEEDED(hr) ? ComPtr<IMemAllocator>(allocator).Detach() : nullptr;
    return hr;
  }

  std::vector<CMediaType> types;  // preferred types; any other one is refused
  bool acceptAny = false;         // unless this is set
  ALLOCATOR_PROPERTIES wanted{2, 64, 1, 0};
  ComPtr<IMemAllocator> allocator;  // used instead of the peer's when given
};

// A filter with one output pin. Owned by references like every filter.
class Source final : public CBaseFilter {
 public:
  static ComPtr<Source> Create() { return ComPtr<Source>(std::make_unique<Source>().release()); }
  Source() : CBaseFilter("source", nullptr, &lock_, kFakeClass), pin(this, &lock_, &hr_) {}
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

  // A sample of the agreed allocator with these times (none: untimed); commits the allocator if
  // needed. Fails the test when none is to be had.
  ComPtr<IMediaSample> NewSample(std::optional<REFERENCE_TIME> start = std::nullopt,
                                 std::optional<REFERENCE_TIME> stop = std::nullopt) {
    const ComPtr<IMemAllocator> allocator = pin.HeldAllocator();
    EXPECT_TRUE(allocator) << "the source is not connected";
    ComPtr<IMediaSample> sample;
    EXPECT_EQ(allocator->Commit(), S_OK);
    EXPECT_EQ(allocator->GetBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
    sample->SetTime(start.has_value() ? &*start : nullptr, stop.has_value() ? &*stop : nullptr);
    sample->SetActualDataLength(sample->GetSize());
    return sample;
  }
  HRESULT Send(IMediaSample* sample) { return pin.Deliver(sample); }

 private:
  CCritSec lock_;
  HRESULT hr_ = S_OK;

 public:
  SourcePin pin;
};

class SinkPin final : public CBaseInputPin {
 public:
  SinkPin(CBaseFilter* filter, CCritSec* lock, HRESULT* hr)
      : CBaseInputPin("sink pin", filter, lock, hr, u"Input") {}

  HRESULT CheckMediaType(const CMediaType* type) override { return accepts(*type); }
  HRESULT GetMediaType(int position, CMediaType* type) override {
    return TypeAt(types, position, type);
  }
  HRESULT Receive(IMediaSample* sample) override {
    const HRESULT hr = CBaseInputPin::Receive(sample);
    return hr == S_OK ? onReceive(sample) : hr;
  }
  HRESULT GetAllocator(IMemAllocator** allocator) override {
    if (refuseOwnAllocator) {
      return VFW_E_NO_ALLOCATOR;
    }
    if (!ownAllocator) {
      return CBaseInputPin::GetAllocator(allocator);
    }
    *allocator = ComPtr<IMemAllocator>(ownAllocator).Detach();
    return S_OK;
  }
  HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override {
    *properties = requirements.value_or(*properties);
    return requirements.has_value() ? S_OK : E_NOTIMPL;
  }
  HRESULT EndOfStream() override {
    ++endsOfStream;
    return S_OK;
  }

  std::vector<CMediaType> types;  // preferred types
  std::function<HRESULT(const CMediaType&)> accepts = [](const CMediaType&) { return S_OK; };
  std::function<HRESULT(IMediaSample*)> onReceive;  // called for each sample; the sink's keeps it
  std::optional<ALLOCATOR_PROPERTIES> requirements;
  ComPtr<IMemAllocator> ownAllocator;
  bool refuseOwnAllocator = false;  // GetAllocator fails
  std::atomic<int> endsOfStream{0};
};

// A filter with one input pin. Samples received are kept (referenced) in arrival order.
class Sink final : public CBaseFilter {
 public:
  static ComPtr<Sink> Create() { return ComPtr<Sink>(std::make_unique<Sink>().release()); }
  Sink() : CBaseFilter("sink", nullptr, &lock_, kFakeClass), pin(this, &lock_, &hr_) {
    pin.onReceive = [this](IMediaSample* sample) {
      Keep(sample);
      return S_OK;
    };
  }
  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin : nullptr; }

  void Keep(IMediaSample* sample) {
    const std::lock_guard guard(samplesLock_);
    samples_.emplace_back(sample);
    arrived_.notify_all();
  }
  // Waits until that many samples have come in all; false after ten seconds.
  bool WaitForSamples(std::size_t count) {
    std::unique_lock guard(samplesLock_);
    return arrived_.wait_for(guard, std::chrono::seconds(10),
                             [&] { return samples_.size() >= count; });
  }
  std::vector<ComPtr<IMediaSample>> Samples() {
    const std::lock_guard guard(samplesLock_);
    return samples_;
  }
  std::size_t Count() { return Samples().size(); }
  void Forget() {
    std::vector<ComPtr<IMediaSample>> forgotten;
    const std::lock_guard guard(samplesLock_);
    samples_.swap(forgotten);
  }

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
  static ComPtr<StingyAllocator> Create(LONG mostBuffers, HRESULT refusal = S_OK) {
    return ComPtr<StingyAllocator>(
        std::make_unique<StingyAllocator>(mostBuffers, refusal).release());
  }
  StingyAllocator(LONG mostBuffers, HRESULT refusal)
      : CUnknown("stingy allocator", nullptr), mostBuffers_(mostBuffers), refusal_(refusal) {}
  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override {
    return iid == IID_IMemAllocator ? GetInterface(static_cast<IMemAllocator*>(this), object)
                                    : CUnknown::NonDelegatingQueryInterface(iid, object);
  }
  HRESULT SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) override {
    ALLOCATOR_PROPERTIES granted = *request;
    granted.cBuffers = std::min(granted.cBuffers, mostBuffers_);
    return FAILED(refusal_) ? refusal_ : inner_->SetProperties(&granted, actual);
  }
  HRESULT GetProperties(ALLOCATOR_PROPERTIES* properties) override {
    return inner_->GetProperties(properties);
  }
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
  ComPtr<IMemAllocator> inner_{CMemAllocator::Create()};
};

}  // namespace fakes
