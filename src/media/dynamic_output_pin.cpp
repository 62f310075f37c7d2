#include "media/dynamic_output_pin.h"

#include "media/external_metadata_media_sample.h"
#include "platform/dshow/vfw_errors.h"
#include "util/exceptions.h"

namespace {

// Success codes of a delivery say nothing that a sender could use.
HRESULT WithoutSuccessCodes(HRESULT hr) {
  return SUCCEEDED(hr) ? S_OK : hr;
}

}  // namespace

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
