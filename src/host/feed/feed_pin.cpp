#include "host/feed/feed_pin.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "pins/streams.h"
#include "platform/dshow/vfw_errors.h"

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

namespace {

CMediaType SideType(const GUID& major) {
  CMediaType type(&major);
  type.SetSubtype(&MEDIASUBTYPE_None);
  type.SetFormatType(&FORMAT_None);
  type.SetVariableSize();
  return type;
}

}  // namespace

GraphError::GraphError(std::string_view what, HRESULT hr)
    : message_("cannot " + std::string(what) + ": " + COMException(hr).what()) {}

FeedPin::FeedPin(CBaseFilter* filter, CCritSec* lock, LPCWSTR name, CMediaType type,
                 Buffers buffers)
    : CBaseOutputPin("feed pin", filter, lock, nullptr, name),
      type_(std::move(type)),
      buffers_(buffers) {
  SetReconnectWhenActive(true);
}

FeedPin::~FeedPin() {
  ReleasePeer();
}

HRESULT FeedPin::CheckMediaType(const CMediaType* type) {
  return type->majortype == type_.majortype && type->subtype == type_.subtype ? S_OK : S_FALSE;
}

HRESULT FeedPin::GetMediaType(int position, CMediaType* type) {
  if (position != 0) {
    return VFW_S_NO_MORE_ITEMS;
  }
  *type = type_;
  return S_OK;
}

HRESULT FeedPin::DecideAllocator(IMemInputPin* pin, IMemAllocator** allocator) {
  ALLOCATOR_PROPERTIES request{};
  pin->GetAllocatorRequirements(&request);
  const ComPtr<IMemAllocator> mine = ownAllocator_ ? ownAllocator_ : CMemAllocator::Create();
  HRESULT hr = DecideBufferSize(mine.Get(), &request);
  if (FAILED(hr)) {
    return hr;
  }
  hr = pin->NotifyAllocator(mine.Get(), FALSE);
  if (SUCCEEDED(hr)) {
    *allocator = ComPtr<IMemAllocator>(mine).Detach();
  }
  return hr;
}

HRESULT FeedPin::DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) {
  request->cBuffers = std::max(request->cBuffers, buffers_.count);
  request->cbBuffer = std::max(request->cbBuffer, buffers_.bytes);
  request->cbAlign = std::max<LONG>(request->cbAlign, 1);
  ALLOCATOR_PROPERTIES actual{};
  return allocator->SetProperties(request, &actual);
}

void FeedPin::ReportTo(qorp::log::ILogPerf* logger, const std::string& pinName) {
  logger_ = logger;
  // The name becomes that of a column in records whose fields are separated by commas.
  pinName_ = pinName;
  std::replace(pinName_.begin(), pinName_.end(), ',', '_');
  logger_->RegisterPin(pinName_.c_str());
}

ComPtr<IMediaSample> FeedPin::NewSample(Time start, Time stop, bool wait) {
  ComPtr<IMediaSample> sample;
  HRESULT hr = GetDeliveryBuffer(sample.Put(), nullptr, nullptr, AM_GBF_NOWAIT);
  if (hr == VFW_E_TIMEOUT) {
    if (logger_ != nullptr) {
      logger_->NotifyBufferFull(pinName_.c_str());
    }
    if (wait) {
      hr = GetDeliveryBuffer(sample.Put(), nullptr, nullptr, 0);
    }
  }
  if (hr != S_OK) {
    return nullptr;
  }
  sample->SetTime(&start, &stop);
  return sample;
}

ComPtr<IMediaSample> FeedPin::NewFrame(Time start, Time stop, bool wait, LONG bytes) {
  ComPtr<IMediaSample> sample = NewSample(start, stop, wait);
  const bool fits =
      sample && (frames_ ? frames_->Fit(*sample.Get(), bytes) : sample->GetSize() >= bytes);
  return fits && SUCCEEDED(sample->SetActualDataLength(bytes)) ? sample : nullptr;
}

void FeedPin::ChangeType(CMediaType type, LONG bytes) {
  type_ = std::move(type);
  if (frames_) {
    frames_->Expect(bytes);
  }
}

bool FeedPin::Send(std::span<const std::uint8_t> bytes, Time start, Time stop,
                   const CMediaType* newType) {
  const ComPtr<IMediaSample> sample = NewSample(start, stop, false);
  BYTE* buffer = nullptr;
  if (!sample || FAILED(sample->GetPointer(&buffer)) ||
      FAILED(sample->SetActualDataLength(static_cast<LONG>(bytes.size())))) {
    return false;
  }
  std::memcpy(buffer, bytes.data(), bytes.size());
  sample->SetSyncPoint(TRUE);
  // They stay as they are when the sample is moved to another clock.
  LONGLONG mediaStart = start;
  LONGLONG mediaStop = stop;
  sample->SetMediaTime(&mediaStart, &mediaStop);
  if (newType != nullptr && FAILED(sample->SetMediaType(const_cast<CMediaType*>(newType)))) {
    return false;
  }
  return Deliver(sample.Get()) == S_OK;
}

CMediaType VideoType(int width, int height, Ratio frameRate, Ratio aspect) {
  VIDEOINFOHEADER2 format{};
  format.rcSource = format.rcTarget = {0, 0, width, height};
  format.AvgTimePerFrame = FrameDuration(frameRate);
  format.dwPictAspectRatioX = static_cast<DWORD>(aspect.num);
  format.dwPictAspectRatioY = static_cast<DWORD>(aspect.den);
  format.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
  format.bmiHeader.biWidth = width;
  format.bmiHeader.biHeight = height;
  format.bmiHeader.biPlanes = 1;
  format.bmiHeader.biBitCount = 12;
  format.bmiHeader.biCompression = MakeFourcc('Y', 'V', '1', '2');
  format.bmiHeader.biSizeImage = static_cast<DWORD>(FrameBytes(width, height));
  CMediaType type(&MEDIATYPE_Video);
  type.SetSubtype(&MEDIASUBTYPE_YV12);
  type.SetFormatType(&FORMAT_VideoInfo2);
  type.SetFormat(reinterpret_cast<const BYTE*>(&format), sizeof(format));
  type.SetSampleSize(format.bmiHeader.biSizeImage);
  return type;
}

CMediaType LabelType() {
  return SideType(MEDIATYPE_LabelText);
}
CMediaType AudioAlarmType() {
  return SideType(MEDIATYPE_AudioAlarm);
}
CMediaType VideoAlarmType() {
  return SideType(MEDIATYPE_VideoAlarm);
}

}  // namespace host
