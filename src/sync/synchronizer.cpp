#include "sync/synchronizer.h"

#include <numeric>
#include <stdexcept>

#include "platform/dshow/vfw_errors.h"

namespace {

constexpr std::uint64_t kUnitsPerSecond = 10'000'000;

// Ticks times units does not fit 64 bits for counters that run for years.
__extension__ using Wide = __int128;

std::uint64_t CommonDivisor(std::uint64_t tickRate) {
  if (tickRate == 0) {
    throw std::invalid_argument(
        "CSynchronizer: the tick rate is 0; give the counter's ticks per second");
  }
  return std::gcd(kUnitsPerSecond, tickRate);
}

}  // namespace

CSynchronizer::CSynchronizer(std::uint64_t tickRate, std::uint64_t wrapTicks)
    : ticksPerStep_(tickRate / CommonDivisor(tickRate)),
      unitsPerStep_(kUnitsPerSecond / CommonDivisor(tickRate)),
      wrapTicks_(wrapTicks),
      wrapTime_(static_cast<std::uint64_t>(
          (ticksPerStep_ / 2 + static_cast<Wide>(wrapTicks) * unitsPerStep_) / ticksPerStep_)) {}

bool CSynchronizer::IsSynchronized() {
  const std::lock_guard guard(lock_);
  return synchronized_;
}

void CSynchronizer::SetReference(std::uint64_t ticks, REFERENCE_TIME time) {
  const std::lock_guard guard(lock_);
  synchronized_ = true;
  referenceTicks_ = ticks;
  referenceTime_ = time;
}

void CSynchronizer::ResetReference() {
  const std::lock_guard guard(lock_);
  synchronized_ = false;
}

std::uint64_t CSynchronizer::Forward(std::uint64_t from, std::uint64_t to) const {
  return to >= from ? to - from : wrapTicks_ - from + to;
}

REFERENCE_TIME CSynchronizer::ToReferenceTime(std::uint64_t ticks) {
  const std::lock_guard guard(lock_);
  const auto behind = static_cast<std::int64_t>(Forward(ticks, referenceTicks_));
  const auto ahead = static_cast<std::int64_t>(Forward(referenceTicks_, ticks));
  const Wide delta = behind < ahead ? -static_cast<Wide>(behind) : ahead;
  // Rounded to the nearest, halves away from zero.
  const Wide half = ticksPerStep_ / 2;
  const Wide product = delta * unitsPerStep_;
  const Wide value =
      (product >= 0 ? product + half : product - half) / static_cast<Wide>(ticksPerStep_);
  const Wide result = referenceTime_ + value;
  return static_cast<REFERENCE_TIME>(result < 0 ? result + wrapTime_ : result);
}

namespace {

constexpr LONG kSampleBytes = 8;

std::uint64_t ReadLittleEndian(const BYTE* bytes) {
  std::uint64_t value = 0;
  for (int i = kSampleBytes - 1; i >= 0; --i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

}  // namespace

CSyncInputPin::CSyncInputPin(const char* objectName, CBaseFilter* filter, CCritSec* lock,
                             HRESULT* hr, LPCWSTR name, std::uint64_t wrapTicks,
                             std::uint64_t tickRate)
    : CBaseInputPin(objectName, filter, lock, hr, name), synchronizer_(tickRate, wrapTicks) {}

HRESULT CSyncInputPin::CheckMediaType(const CMediaType* type) {
  if (type == nullptr) {
    return E_POINTER;
  }
  return type->majortype == MEDIATYPE_TickReference && type->subtype == MEDIASUBTYPE_TickReference
             ? S_OK
             : S_FALSE;
}

HRESULT CSyncInputPin::GetMediaType(int position, CMediaType* type) {
  if (type == nullptr) {
    return E_POINTER;
  }
  if (position != 0) {
    return VFW_S_NO_MORE_ITEMS;
  }
  *type = CMediaType(&MEDIATYPE_TickReference);
  type->SetSubtype(&MEDIASUBTYPE_TickReference);
  type->SetSampleSize(kSampleBytes);
  return S_OK;
}

HRESULT CSyncInputPin::Receive(IMediaSample* sample) {
  HRESULT hr = CBaseInputPin::Receive(sample);
  if (hr != S_OK) {
    return hr;  // S_FALSE, too: a flush refuses its samples that way
  }
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  hr = sample->GetTime(&start, &stop);
  if (FAILED(hr)) {
    return hr;
  }
  BYTE* bytes = nullptr;
  hr = sample->GetPointer(&bytes);
  if (FAILED(hr)) {
    return hr;
  }
  if (bytes == nullptr || sample->GetActualDataLength() != kSampleBytes ||
      sample->GetSize() < kSampleBytes) {
    return E_FAIL;
  }
  const bool wasSynchronized = IsSynchronized();
  synchronizer_.SetReference(ReadLittleEndian(bytes), start);
  return wasSynchronized ? S_OK : PostSynchronized();
}

HRESULT CSyncInputPin::PostSynchronized() {
  ComPtr<IMediaEventSink> sink;
  {
    // No reference to the graph is held: with the lock held, the filter cannot leave it meanwhile.
    const CAutoLock guard(m_pLock);
    IFilterGraph* const graph = m_pFilter->GetFilterGraph();
    if (graph == nullptr) {
      return VFW_E_NOT_IN_GRAPH;
    }
    const HRESULT hr = graph->QueryInterface(IID_IMediaEventSink, sink.PutVoid());
    if (FAILED(hr)) {
      return hr;
    }
  }
  const HRESULT hr = sink->Notify(kSynchronizedEvent, 0, 0);
  return FAILED(hr) ? hr : S_OK;
}
