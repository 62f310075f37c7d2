#include "pins/video_output_pin.h"

#include <algorithm>

#include "pins/pin_owner.h"
#include "platform/dshow/vfw_errors.h"

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
