#include "tests/support/fake_filters.h"

#include <algorithm>
#include <chrono>

#include <gtest/gtest.h>

#include "platform/dshow/vfw_errors.h"

namespace fakes {
namespace {

constexpr CLSID kFakeClass{
    0x7D1C2B60, 0x33A1, 0x4B52, {0x9A, 0x10, 0x5E, 0x0C, 0x88, 0x41, 0x20, 0x01}};

BITMAPINFOHEADER Yv12Bitmap(LONG width, LONG height) {
  BITMAPINFOHEADER bitmap{};
  bitmap.biSize = sizeof(bitmap);
  bitmap.biWidth = width;
  bitmap.biHeight = height;
  bitmap.biPlanes = 1;
  bitmap.biBitCount = 12;
  bitmap.biCompression = MakeFourcc('Y', 'V', '1', '2');
  bitmap.biSizeImage = static_cast<DWORD>(width) * static_cast<DWORD>(height) * 3 / 2;
  return bitmap;
}

template <typename Header>
CMediaType VideoType(const Header& header, const GUID& formatType) {
  CMediaType type = TypeOf(MEDIATYPE_Video, MEDIASUBTYPE_YV12);
  type.SetFormatType(&formatType);
  type.SetFormat(reinterpret_cast<const BYTE*>(&header), sizeof(header));
  type.SetSampleSize(header.bmiHeader.biSizeImage);
  return type;
}

}  // namespace

CMediaType TypeOf(const GUID& major, const GUID& subtype) {
  CMediaType type(&major);
  type.SetSubtype(&subtype);
  type.SetFormatType(&FORMAT_None);
  return type;
}

CMediaType Yv12Type(LONG width, LONG height, REFERENCE_TIME frameDuration) {
  VIDEOINFOHEADER2 header{};
  header.AvgTimePerFrame = frameDuration;
  header.bmiHeader = Yv12Bitmap(width, height);
  return VideoType(header, FORMAT_VideoInfo2);
}

CMediaType Yv12TypeWithPlainHeader(LONG width, LONG height, REFERENCE_TIME frameDuration) {
  VIDEOINFOHEADER header{};
  header.AvgTimePerFrame = frameDuration;
  header.bmiHeader = Yv12Bitmap(width, height);
  return VideoType(header, FORMAT_VideoInfo);
}

CMediaType AudioType(const GUID& subtype) {
  return TypeOf(MEDIATYPE_Audio, subtype);
}

CMediaType TypeOf(IMediaSample* sample) {
  OwnedMediaType type;
  return ReadMediaType(sample, &type) == S_OK && type ? CMediaType(*type) : CMediaType();
}

std::pair<REFERENCE_TIME, REFERENCE_TIME> TimesOf(IMediaSample* sample) {
  std::pair<REFERENCE_TIME, REFERENCE_TIME> times(-1, -1);
  sample->GetTime(&times.first, &times.second);
  return times;
}

SourcePin::SourcePin(CBaseFilter* filter, CCritSec* lock, HRESULT* hr)
    : CBaseOutputPin("source pin", filter, lock, hr, u"Output") {}

HRESULT SourcePin::CheckMediaType(const CMediaType* type) {
  return acceptAny || std::find(types.begin(), types.end(), *type) != types.end() ? S_OK : S_FALSE;
}

HRESULT SourcePin::GetMediaType(int position, CMediaType* type) {
  if (position >= static_cast<int>(types.size())) {
    return VFW_S_NO_MORE_ITEMS;
  }
  *type = types[static_cast<std::size_t>(position)];
  return S_OK;
}

HRESULT SourcePin::DecideBufferSize(IMemAllocator* candidate, ALLOCATOR_PROPERTIES* request) {
  request->cBuffers = std::max(request->cBuffers, wanted.cBuffers);
  request->cbBuffer = std::max(request->cbBuffer, wanted.cbBuffer);
  request->cbAlign = std::max(request->cbAlign, wanted.cbAlign);
  ALLOCATOR_PROPERTIES actual{};
  return candidate->SetProperties(request, &actual);
}

HRESULT SourcePin::InitAllocator(IMemAllocator** made) {
  if (!allocator) {
    return CBaseOutputPin::InitAllocator(made);
  }
  *made = ComPtr<IMemAllocator>(allocator).Detach();
  return S_OK;
}

HRESULT SourcePin::DecideAllocator(IMemInputPin* input, IMemAllocator** decided) {
  if (!allocator) {
    return CBaseOutputPin::DecideAllocator(input, decided);
  }
  ALLOCATOR_PROPERTIES request{};
  DecideBufferSize(allocator.Get(), &request);
  const HRESULT hr = input->NotifyAllocator(allocator.Get(), FALSE);
  *decided = SUCCEEDED(hr) ? ComPtr<IMemAllocator>(allocator).Detach() : nullptr;
  return hr;
}

ComPtr<Source> Source::Create() {
  return ComPtr<Source>(std::make_unique<Source>().release());
}

Source::Source() : CBaseFilter("source", nullptr, &lock_, kFakeClass), pin(this, &lock_, &hr_) {}

ComPtr<IMediaSample> Source::NewSample(std::optional<REFERENCE_TIME> start,
                                       std::optional<REFERENCE_TIME> stop) {
  const ComPtr<IMemAllocator> allocator = pin.HeldAllocator();
  EXPECT_TRUE(allocator) << "the source is not connected";
  ComPtr<IMediaSample> sample;
  EXPECT_EQ(allocator->Commit(), S_OK);
  EXPECT_EQ(allocator->GetBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
  sample->SetTime(start.has_value() ? &*start : nullptr, stop.has_value() ? &*stop : nullptr);
  sample->SetActualDataLength(sample->GetSize());
  return sample;
}

SinkPin::SinkPin(CBaseFilter* filter, CCritSec* lock, HRESULT* hr)
    : CBaseInputPin("sink pin", filter, lock, hr, u"Input") {}

HRESULT SinkPin::CheckMediaType(const CMediaType* type) {
  return accepts(*type);
}

HRESULT SinkPin::GetMediaType(int position, CMediaType* type) {
  if (position >= static_cast<int>(types.size())) {
    return VFW_S_NO_MORE_ITEMS;
  }
  *type = types[static_cast<std::size_t>(position)];
  return S_OK;
}

HRESULT SinkPin::Receive(IMediaSample* sample) {
  const HRESULT hr = CBaseInputPin::Receive(sample);
  if (hr != S_OK) {
    return hr;
  }
  if (onReceive) {
    return onReceive(sample);
  }
  static_cast<Sink*>(m_pFilter)->Keep(sample);
  return S_OK;
}

HRESULT SinkPin::GetAllocator(IMemAllocator** allocator) {
  if (refuseOwnAllocator) {
    return VFW_E_NO_ALLOCATOR;
  }
  if (!ownAllocator) {
    return CBaseInputPin::GetAllocator(allocator);
  }
  *allocator = ComPtr<IMemAllocator>(ownAllocator).Detach();
  return S_OK;
}

HRESULT SinkPin::GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) {
  if (!requirements.has_value()) {
    return E_NOTIMPL;
  }
  *properties = *requirements;
  return S_OK;
}

HRESULT SinkPin::EndOfStream() {
  ++endsOfStream;
  return S_OK;
}

ComPtr<Sink> Sink::Create() {
  return ComPtr<Sink>(std::make_unique<Sink>().release());
}

Sink::Sink() : CBaseFilter("sink", nullptr, &lock_, kFakeClass), pin(this, &lock_, &hr_) {}

void Sink::Keep(IMediaSample* sample) {
  {
    const std::lock_guard guard(samplesLock_);
    samples_.emplace_back(sample);
  }
  arrived_.notify_all();
}

bool Sink::WaitForSamples(std::size_t count) {
  std::unique_lock guard(samplesLock_);
  return arrived_.wait_for(guard, std::chrono::seconds(10),
                           [&] { return samples_.size() >= count; });
}

std::vector<ComPtr<IMediaSample>> Sink::Samples() {
  const std::lock_guard guard(samplesLock_);
  return samples_;
}

std::size_t Sink::Count() {
  const std::lock_guard guard(samplesLock_);
  return samples_.size();
}

void Sink::Forget() {
  std::vector<ComPtr<IMediaSample>> forgotten;
  const std::lock_guard guard(samplesLock_);
  samples_.swap(forgotten);
}

ComPtr<StingyAllocator> StingyAllocator::Create(LONG mostBuffers, HRESULT refusal) {
  return ComPtr<StingyAllocator>(std::make_unique<StingyAllocator>(mostBuffers, refusal).release());
}

StingyAllocator::StingyAllocator(LONG mostBuffers, HRESULT refusal)
    : CUnknown("stingy allocator", nullptr),
      mostBuffers_(mostBuffers),
      refusal_(refusal),
      inner_(CMemAllocator::Create()) {}

HRESULT StingyAllocator::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IMemAllocator) {
    return GetInterface(static_cast<IMemAllocator*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT StingyAllocator::SetProperties(ALLOCATOR_PROPERTIES* request,
                                       ALLOCATOR_PROPERTIES* actual) {
  if (FAILED(refusal_)) {
    return refusal_;
  }
  ALLOCATOR_PROPERTIES granted = *request;
  granted.cBuffers = std::min(granted.cBuffers, mostBuffers_);
  return inner_->SetProperties(&granted, actual);
}

HRESULT StingyAllocator::GetProperties(ALLOCATOR_PROPERTIES* properties) {
  return inner_->GetProperties(properties);
}

}  // namespace fakes
