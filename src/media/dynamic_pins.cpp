#include "media/dynamic_pins.h"

#include "media/metadata_samples.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/vfw_errors.h"
#include "util/exceptions.h"

namespace {

// The different success codes of a delivery mean nothing to a sender.
HRESULT WithoutSuccessCodes(HRESULT hr) {
  return SUCCEEDED(hr) ? S_OK : hr;
}

}  // namespace

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
    // The next sample tries again.
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

COutputPinWithDynamicMediaType::COutputPinWithDynamicMediaType(const char* objectName,
                                                               CBaseFilter* filter, CCritSec* lock,
                                                               HRESULT* hr, LPCWSTR name)
    : CBaseOutputPin(objectName, filter, lock, hr, name) {}

COutputPinWithDynamicMediaType::~COutputPinWithDynamicMediaType() {
  ReleasePeer();
}

HRESULT COutputPinWithDynamicMediaType::Deliver(IMediaSample* sample) {
  // Cleared before the type is read: a change in between sets it again.
  if (!typePending.exchange(false)) {
    return WithoutSuccessCodes(CBaseOutputPin::Deliver(sample));
  }
  ComPtr<IMediaSample> wrapper;
  HRESULT hr = E_UNEXPECTED;
  try {
    hr = WrapWithType(sample, &wrapper);
  } catch (const COMException& error) {
    hr = error.code();
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  }
  if (FAILED(hr)) {
    typePending = true;
    return hr;
  }
  return WithoutSuccessCodes(CBaseOutputPin::Deliver(wrapper.Get()));
}

HRESULT COutputPinWithDynamicMediaType::WrapWithType(IMediaSample* sample,
                                                     ComPtr<IMediaSample>* wrapper) {
  CMediaType connectionType;
  HRESULT hr = ConnectionMediaType(&connectionType);
  if (FAILED(hr)) {
    return hr;
  }
  *wrapper = CExternalMetaDataMediaSample::Create(sample);
  hr = (*wrapper)->SetMediaType(&connectionType);
  return FAILED(hr) ? hr : SetMediaType(&connectionType);
}

HRESULT COutputPinWithDynamicMediaType::ChangeMediaType(const CMediaType& type, bool reconnect) {
  ComPtr<IPin> peer;
  if (FAILED(ConnectedTo(peer.Put()))) {
    return S_OK;
  }
  CMediaType present;
  HRESULT hr = ConnectionMediaType(&present);
  if (FAILED(hr)) {
    return hr;
  }
  if (present == type) {
    return S_OK;
  }
  if (reconnect) {
    return ReconnectWith(peer.Get(), type);
  }
  hr = AskPeer(peer.Get(), type);
  if (FAILED(hr)) {
    return hr;
  }
  hr = SetMediaType(&type);
  typePending = true;
  return WithoutSuccessCodes(hr);
}

HRESULT COutputPinWithDynamicMediaType::AskPeer(IPin* peer, const CMediaType& type) {
  ComPtr<IPinConnection> dynamic;
  const HRESULT asked = peer->QueryInterface(IID_IPinConnection, dynamic.PutVoid());
  if (SUCCEEDED(asked)) {
    return dynamic->DynamicQueryAccept(&type);
  }
  if (asked != E_NOINTERFACE) {
    return asked;
  }
  const HRESULT accepted = peer->QueryAccept(&type);
  return accepted == S_FALSE ? VFW_E_TYPE_NOT_ACCEPTED : accepted;
}

HRESULT COutputPinWithDynamicMediaType::ReconnectWith(IPin* peer, const CMediaType& type) {
  HRESULT hr = peer->ReceiveConnection(this, &type);
  if (FAILED(hr)) {
    return hr;
  }
  if (const ComPtr<IMemAllocator> former = HeldAllocator()) {
    hr = former->Decommit();
    if (FAILED(hr)) {
      return hr;
    }
  }
  ReplaceAllocator(nullptr);
  hr = SetMediaType(&type);
  if (FAILED(hr)) {
    return hr;
  }
  ComPtr<IMemAllocator> allocator;
  hr = DecideAllocator(HeldInputPin().Get(), allocator.Put());
  if (FAILED(hr)) {
    return hr;
  }
  ReplaceAllocator(allocator);
  return WithoutSuccessCodes(allocator->Commit());
}
