#include "host/feed/anchor_sample.h"

#include <memory>

namespace host {

ComPtr<AnchorSample> AnchorSample::Create(ComPtr<IMediaSample> frame, Time start) {
  return ComPtr<AnchorSample>(std::make_unique<AnchorSample>(std::move(frame), start).release());
}

HRESULT AnchorSample::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IMediaSample) {
    return GetInterface(static_cast<IMediaSample*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT AnchorSample::GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
  if (start == nullptr || stop == nullptr) {
    return E_POINTER;
  }
  *start = start_;
  *stop = *start + 1;
  return S_OK;
}

}  // namespace host
