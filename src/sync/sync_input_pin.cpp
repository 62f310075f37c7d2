#include "sync/sync_input_pin.h"

#include "platform/dshow/vfw_errors.h"

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
    // The filter does not own its graph: under the lock it cannot leave it meanwhile.
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
