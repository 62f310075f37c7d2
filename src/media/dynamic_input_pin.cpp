#include "media/dynamic_input_pin.h"

#include "media/external_metadata_media_sample.h"
#include "platform/baseclasses/com_boundary.h"
#include "platform/dshow/vfw_errors.h"
#include "util/exceptions.h"

CInputPinWithDynamicMediaType::CInputPinWithDynamicMediaType(const char* objectName,
                                                             CBaseFilter* filter, CCritSec* lock,
                                                             HRESULT* hr, LPCWSTR name)
    : CBaseInputPin(objectName, filter, lock, hr, name) {}

HRESULT CInputPinWithDynamicMediaType::OnReconnect(IPin* /*pin*/) {
  return S_OK;
}

HRESULT CInputPinWithDynamicMediaType::ReceiveConnection(IPin* connector,
                                                         const AM_MEDIA_TYPE* type) {
  if (connector == nullptr || type == nullptr) {
    return E_POINTER;
  }
  const CAutoLock guard(m_pLock);
  CMediaType proposed;
  HRESULT hr = CheckProposal(connector, *type, &proposed);
  if (FAILED(hr)) {
    BreakConnect();
    return hr;
  }
  const bool reconnects = m_Connected && IsSameObject(m_Connected.Get(), connector);
  SetConnected(connector);
  {
    const CAutoLock change(&typeLock);
    hr = AtComBoundary([&] { return SetMediaType(&proposed); });
    typePending = true;
  }
  if (SUCCEEDED(hr)) {
    hr = AtComBoundary(
        [&] { return reconnects ? OnReconnect(connector) : CompleteConnect(connector); });
    if (SUCCEEDED(hr)) {
      return S_OK;
    }
  }
  SetConnected(nullptr);
  BreakConnect();
  return hr;
}

HRESULT CInputPinWithDynamicMediaType::Receive(IMediaSample* sample) {
  if (sample == nullptr) {
    return E_POINTER;
  }
  try {
    return ReceiveTyped(sample);
  } catch (const COMException& error) {
    return error.code();
  } catch (...) {
    return E_FAIL;
  }
}

HRESULT CInputPinWithDynamicMediaType::ReceiveTyped(IMediaSample* sample) {
  OwnedMediaType brought;
  HRESULT hr = ReadMediaType(sample, &brought);
  if (FAILED(hr)) {
    return hr;
  }
  if (brought != nullptr) {
    hr = FollowSample(CMediaType(*brought));
    return FAILED(hr) ? hr : OnReceive(sample);
  }
  if (!typePending) {
    return OnReceive(sample);
  }
  CMediaType connectionType;
  ThrowIfFailed(TakePendingType(&connectionType));
  ComPtr<IMediaSample> wrapper;
  try {
    wrapper = CExternalMetaDataMediaSample::Create(sample);
    ThrowIfFailed(wrapper->SetMediaType(&connectionType));
  } catch (...) {
    // The next sample is another try.
    typePending = true;
    throw;
  }
  return OnReceive(wrapper.Get());
}

// The flag is cleared before the type is set or read: a connection that comes in between sets it
// again.
HRESULT CInputPinWithDynamicMediaType::FollowSample(const CMediaType& type) {
  const CAutoLock change(&typeLock);
  const bool wasPending = typePending.exchange(false);
  const HRESULT hr = SetMediaType(&type);
  if (FAILED(hr) && wasPending) {
    typePending = true;
  }
  return hr;
}

HRESULT CInputPinWithDynamicMediaType::TakePendingType(CMediaType* type) {
  const CAutoLock change(&typeLock);
  typePending = false;
  const HRESULT hr = ConnectionMediaType(type);
  if (FAILED(hr)) {
    typePending = true;
  }
  return hr;
}

HRESULT CInputPinWithDynamicMediaType::NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) {
  HRESULT hr = CBaseInputPin::NotifyAllocator(allocator, readOnly);
  if (FAILED(hr)) {
    return hr;
  }
  ALLOCATOR_PROPERTIES required{};
  hr = GetAllocatorRequirements(&required);
  if (hr == E_NOTIMPL) {
    return S_OK;
  }
  if (FAILED(hr)) {
    return hr;
  }
  ALLOCATOR_PROPERTIES offered{};
  hr = allocator->GetProperties(&offered);
  if (FAILED(hr)) {
    return hr;
  }
  return offered.cBuffers < required.cBuffers || offered.cbBuffer < required.cbBuffer ? E_FAIL
                                                                                      : S_OK;
}
