#include "pins/video_pins.h"

#include <algorithm>
#include <limits>

#include "pins/pin_owner.h"
#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"
#include "util/ratio.h"

namespace {

constexpr qorp::Ratio kDefaultFrameRate{25, 1};

bool CarriesType(IMediaSample* sample, CMediaType* type) {
  OwnedMediaType carried;
  if (ReadMediaType(sample, &carried) != S_OK) {
    return false;
  }
  *type = *carried;
  return true;
}

}  // namespace

CComposeInputVideoPin::CComposeInputVideoPin(PinOwner* composer, CCritSec* lock, HRESULT* hr,
                                             LPCWSTR name, ULONG number)
    : CInputPinWithDynamicMediaType(nullptr, composer, lock, hr, name),
      index(number),
      filter(composer),
      frameDuration(qorp::FrameDuration(kDefaultFrameRate)) {
  SetReconnectWhenActive(true);
}

CComposeInputVideoPin::~CComposeInputVideoPin() = default;

HRESULT CComposeInputVideoPin::CheckMediaType(const CMediaType* type) {
  const bool accepted =
      type->majortype == MEDIATYPE_Video && type->subtype == MEDIASUBTYPE_YV12 &&
      (type->formattype == FORMAT_VideoInfo2 || type->formattype == FORMAT_VideoInfo);
  return accepted ? S_OK : S_FALSE;
}

HRESULT CComposeInputVideoPin::GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) {
  if (properties == nullptr) {
    return E_POINTER;
  }
  *properties = {kRequiredBuffers, 1, kBufferAlign, 0};
  return S_OK;
}

HRESULT CComposeInputVideoPin::NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) {
  // The requirements are negotiated here rather than checked by the direct base.
  // NOLINTNEXTLINE(bugprone-parent-virtual-call)
  const HRESULT noted = CBaseInputPin::NotifyAllocator(allocator, readOnly);
  if (allocator == nullptr) {
    return noted;
  }
  ALLOCATOR_PROPERTIES properties{};
  allocator->GetProperties(&properties);
  if (properties.cBuffers >= kRequiredBuffers) {
    return noted;
  }
  properties.cBuffers = kRequiredBuffers;
  ALLOCATOR_PROPERTIES actual{};
  const HRESULT set = allocator->SetProperties(&properties, &actual);
  if (FAILED(set)) {
    return set;
  }
  return actual.cBuffers == kRequiredBuffers ? set : E_FAIL;
}

HRESULT CComposeInputVideoPin::ReadVideoFormat(const CMediaType& type, LONG* width, LONG* height) {
  if (type.subtype != MEDIASUBTYPE_YV12) {
    filter->Logger()->log(qorp::log::kError, "[Pin #%d] Trying to set a wrong media type",
                          static_cast<int>(index));
    return S_FALSE;
  }
  // A VIDEOINFOHEADER, which the connection accepts, never changes the frame duration or the size.
  const auto* const format = FormatBlock<VIDEOINFOHEADER2>(type);
  if (type.formattype != FORMAT_VideoInfo2 || format == nullptr) {
    return S_FALSE;
  }
  frameDuration = format->AvgTimePerFrame;
  *width = format->bmiHeader.biWidth;
  *height = format->bmiHeader.biHeight;
  return S_OK;
}

CComposeInputVideoWindowPin::CComposeInputVideoWindowPin(PinOwner* composer, CCritSec* lock,
                                                         HRESULT* hr, LPCWSTR name, ULONG number)
    : CComposeInputVideoPin(composer, lock, hr, name, number) {
  queue.reserve(kResyncHighWater + 2);
}

CComposeInputVideoWindowPin::~CComposeInputVideoWindowPin() {
  FlushSamples();
}

HRESULT CComposeInputVideoWindowPin::SetMediaType(const CMediaType* type) {
  const HRESULT hr = CComposeInputVideoPin::SetMediaType(type);
  if (FAILED(hr)) {
    return hr;
  }
  LONG width = 0;
  LONG height = 0;
  CheckVideoFormat(*type, &width, &height);
  latency = kWindowLatency;
  return hr;
}

HRESULT CComposeInputVideoWindowPin::CheckVideoFormat(const CMediaType& type, LONG* width,
                                                      LONG* height) {
  return ReadVideoFormat(type, width, height);
}

HRESULT CComposeInputVideoWindowPin::OnReceive(IMediaSample* sample) {
  const CAutoLock guard(&queueLock);
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  const HRESULT timed = sample->GetTime(&start, &stop);
  if (timed == S_OK) {
    ReceiveTimed(sample, start, stop);
  } else if (timed == VFW_E_SAMPLE_TIME_NOT_SET) {
    start = nextStart;
    stop = AddTimes(start, frameDuration);
    sample->SetTime(&start, &stop);
    queue.emplace_back(sample);
    nextStart = stop;
  }
  // A sample with any other result, such as a start without a stop, is ignored.
  return S_OK;
}

void CComposeInputVideoWindowPin::ReceiveTimed(IMediaSample* sample, REFERENCE_TIME start,
                                               REFERENCE_TIME stop) {
  qorp::log::ILogPerf* const logger = filter->Logger();
  if (queue.size() >= kResyncHighWater) {
    ReleaseOlderSamples(SubtractTimes(start, latency));
    logger->log(qorp::log::kWarning, "Composer audio/video #%d resynchronizes (+) (%d)",
                static_cast<int>(index), static_cast<int>(queue.size()));
    ResetTimeOffset(sample);
  } else if (queue.size() < kResyncLowWater) {
    logger->log(qorp::log::kWarning, "Composer audio/video #%d resynchronizes (-)",
                static_cast<int>(index));
    ResetTimeOffset(sample);
  }
  if (sample->IsDiscontinuity() == S_OK) {
    ResetTimeOffset(sample);
  }
  // After an implausible stop time, the next start is one frame duration later.
  const REFERENCE_TIME duration = frameDuration;
  nextStart = stop > AddTimes(start, duration >> 1) ? stop : AddTimes(start, duration);
  queue.emplace_back(sample);
}

void CComposeInputVideoWindowPin::ResetTimeOffset(IMediaSample* sample) {
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  sample->GetTime(&start, &stop);
  timeOffset = SubtractTimes(filter->PresentTime(), start);
}

void CComposeInputVideoWindowPin::FlushSamples() {
  const CAutoLock guard(&queueLock);
  queue.clear();
}

void CComposeInputVideoWindowPin::ReleaseOlderSamples(REFERENCE_TIME time) {
  const CAutoLock guard(&queueLock);
  std::size_t position = 0;
  while (position < queue.size()) {
    IMediaSample* const sample = queue[position].Get();
    REFERENCE_TIME start = 0;
    REFERENCE_TIME stop = 0;
    if (FAILED(sample->GetTime(&start, &stop))) {
      return;
    }
    if (start >= time || queue.size() < 2) {
      ++position;
      continue;
    }
    CMediaType announced;
    if (position + 1 < queue.size() && CarriesType(sample, &announced)) {
      IMediaSample* const successor = queue[position + 1].Get();
      CMediaType own;
      if (!CarriesType(successor, &own)) {
        successor->SetMediaType(&announced);
      }
    }
    queue.erase(queue.begin() + static_cast<std::ptrdiff_t>(position));
  }
}

void CComposeInputVideoWindowPin::PickSample(REFERENCE_TIME frameTime,
                                             ComPtr<IMediaSample>* sample) {
  const CAutoLock guard(&queueLock);
  const REFERENCE_TIME target = SubtractTimes(SubtractTimes(frameTime, timeOffset), latency);
  sample->Reset();
  CMediaType carried;
  CMediaType chosenType;
  std::uint64_t best = std::numeric_limits<REFERENCE_TIME>::max();
  IMediaSample* chosen = nullptr;
  REFERENCE_TIME start = 0;
  for (const ComPtr<IMediaSample>& entry : queue) {
    CarriesType(entry.Get(), &carried);
    REFERENCE_TIME stop = 0;
    entry->GetTime(&start, &stop);
    const std::uint64_t distance = TimeDistance(target, start);
    if (distance < best) {
      best = distance;
      chosen = entry.Get();
      if (carried.IsValid()) {
        chosenType = carried;
      }
    }
  }
  if (chosen == nullptr) {
    queue.clear();
    return;
  }
  *sample = ComPtr<IMediaSample>(chosen);
  if (chosenType.IsValid() && !(chosenType == lastType)) {
    chosen->SetMediaType(&chosenType);
    lastType = chosenType;
  }
}

HRESULT CComposeInputVideoWindowPin::ReadType(IMediaSample* sample, OwnedMediaType* type) {
  const CAutoLock guard(&queueLock);
  return ReadMediaType(sample, type);
}

HRESULT CComposeInputVideoWindowPin::ReadTime(IMediaSample* sample, REFERENCE_TIME* start,
                                              REFERENCE_TIME* stop) {
  const CAutoLock guard(&queueLock);
  return sample->GetTime(start, stop);
}

CComposeInputVideoBackgroundPin::CComposeInputVideoBackgroundPin(PinOwner* composer, CCritSec* lock,
                                                                 HRESULT* hr, LPCWSTR name)
    : CComposeInputVideoPin(composer, lock, hr, name, 0) {}

CComposeInputVideoBackgroundPin::~CComposeInputVideoBackgroundPin() = default;

HRESULT CComposeInputVideoBackgroundPin::CheckVideoFormat(const CMediaType& type, LONG* width,
                                                          LONG* height) {
  return ReadVideoFormat(type, width, height);
}

HRESULT CComposeInputVideoBackgroundPin::OnReceive(IMediaSample* sample) {
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  const HRESULT timed = sample->GetTime(&start, &stop);
  if (timed == VFW_E_SAMPLE_TIME_NOT_SET) {
    start = AddTimes(filter->PresentTime(), frameDuration);
    stop = AddTimes(start, frameDuration);
    const HRESULT set = sample->SetTime(&start, &stop);
    if (FAILED(set)) {
      filter->Logger()->log(qorp::log::kError,
                            "Composer background input could not be timestamped");
      return set;
    }
  } else if (FAILED(timed)) {
    filter->Logger()->log(qorp::log::kError,
                          "Composer background input pin received an incorrect media sample");
    return timed;
  }
  filter->SetPresentTime(start);
  filter->QueueBackgroundFrame(ComPtr<IMediaSample>(sample));
  return S_OK;
}

CComposeOutputVideoPin::CComposeOutputVideoPin(PinOwner* composer, CCritSec* lock, HRESULT* hr,
                                               LPCWSTR name)
    : CBaseOutputPin(nullptr, composer, lock, hr, name), filter(composer) {}

CComposeOutputVideoPin::~CComposeOutputVideoPin() {
  ReleasePeer();
}

HRESULT CComposeOutputVideoPin::CheckMediaType(const CMediaType* type) {
  const bool accepted = type->majortype == MEDIATYPE_Video && type->subtype == MEDIASUBTYPE_YV12 &&
                        type->formattype == FORMAT_VideoInfo2;
  return accepted ? S_OK : S_FALSE;
}

HRESULT CComposeOutputVideoPin::GetMediaType(int position, CMediaType* type) {
  if (position != 0) {
    return VFW_S_NO_MORE_ITEMS;
  }
  // A type that is allocated here would never reach the caller.
  return type != nullptr ? filter->BuildOutputMediaType(type) : E_POINTER;
}

HRESULT CComposeOutputVideoPin::DecideBufferSize(IMemAllocator* allocator,
                                                 ALLOCATOR_PROPERTIES* request) {
  request->cBuffers = std::max(request->cBuffers, kMinOutputBuffers);
  request->cbBuffer = filter->OutputFrameBytes();
  request->cbAlign = 1;
  request->cbPrefix = 0;
  ALLOCATOR_PROPERTIES actual{};
  const HRESULT hr = allocator->SetProperties(request, &actual);
  if (FAILED(hr)) {
    return hr;
  }
  return actual.cbBuffer < request->cbBuffer || actual.cBuffers < request->cBuffers ? E_FAIL : S_OK;
}

HRESULT CComposeOutputVideoPin::Notify(IBaseFilter* /*self*/, Quality /*quality*/) {
  return S_OK;
}
