#include "platform/baseclasses/base_pin.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/vfw_errors.h"

CBaseInputPin::CBaseInputPin(const char* objectName, CBaseFilter* filter, CCritSec* lock,
                             HRESULT* hr, LPCWSTR name)
    : CBasePin(objectName, filter, lock, hr, name, PINDIR_INPUT) {}

CBaseInputPin::~CBaseInputPin() = default;

HRESULT CBaseInputPin::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IMemInputPin) {
    return GetInterface(static_cast<IMemInputPin*>(this), object);
  }
  return CBasePin::NonDelegatingQueryInterface(iid, object);
}

ComPtr<IMemAllocator> CBaseInputPin::HeldAllocator() {
  const os::MutexLock guard(allocatorLock_);
  return m_pAllocator;
}

ComPtr<IMemAllocator> CBaseInputPin::ReplaceAllocator(ComPtr<IMemAllocator> allocator) {
  const os::MutexLock guard(allocatorLock_);
  m_pAllocator.Swap(allocator);
  return allocator;
}

HRESULT CBaseInputPin::BreakConnect() {
  const ComPtr<IMemAllocator> former = ReplaceAllocator(nullptr);
  if (!former) {
    return S_OK;
  }
  return former->Decommit();
}

HRESULT CBaseInputPin::Inactive() {
  m_bRunTimeError = false;
  m_bFlushing = false;
  const ComPtr<IMemAllocator> allocator = HeldAllocator();
  return allocator ? allocator->Decommit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseInputPin::CheckStreaming() {
  if (!IsConnected()) {
    return VFW_E_NOT_CONNECTED;
  }
  if (IsStopped()) {
    return VFW_E_WRONG_STATE;
  }
  if (m_bFlushing) {
    return S_FALSE;
  }
  return m_bRunTimeError ? VFW_E_RUNTIME_ERROR : S_OK;
}

HRESULT CBaseInputPin::BeginFlush() {
  const CAutoLock guard(m_pLock);
  m_bFlushing = true;
  return S_OK;
}

HRESULT CBaseInputPin::EndFlush() {
  const CAutoLock guard(m_pLock);
  m_bFlushing = false;
  m_bRunTimeError = false;
  return S_OK;
}

HRESULT CBaseInputPin::GetAllocator(IMemAllocator** allocator) {
  if (allocator == nullptr) {
    return E_POINTER;
  }
  return AtComBoundary([&] {
    const CAutoLock guard(m_pLock);
    ComPtr<IMemAllocator> held = HeldAllocator();
    if (!held) {
      held = CMemAllocator::Create();
      ReplaceAllocator(held);
    }
    *allocator = held.Detach();
    return S_OK;
  });
}

HRESULT CBaseInputPin::NotifyAllocator(IMemAllocator* allocator, BOOL /*readOnly*/) {
  if (allocator == nullptr) {
    return E_POINTER;
  }
  const CAutoLock guard(m_pLock);
  ReplaceAllocator(ComPtr<IMemAllocator>(allocator));
  return S_OK;
}

HRESULT CBaseInputPin::GetAllocatorRequirements(ALLOCATOR_PROPERTIES* /*properties*/) {
  return E_NOTIMPL;
}

HRESULT CBaseInputPin::Receive(IMediaSample* sample) {
  if (sample == nullptr) {
    return E_POINTER;
  }
  const HRESULT streaming = CheckStreaming();
  if (streaming != S_OK) {
    return streaming;
  }
  OwnedMediaType changed;
  const HRESULT typed = ReadMediaType(sample, &changed);
  if (FAILED(typed)) {
    return typed;
  }
  if (changed == nullptr) {
    return S_OK;
  }
  const HRESULT checked = AtComBoundary([&] {
    const CMediaType type(*changed);
    return CheckMediaType(&type);
  });
  if (checked == S_OK || checked == E_OUTOFMEMORY) {
    return checked;
  }
  m_bRunTimeError = true;
  EndOfStream();
  m_pFilter->NotifyEvent(EC_ERRORABORT, VFW_E_TYPE_NOT_ACCEPTED, 0);
  return VFW_E_INVALIDMEDIATYPE;
}

HRESULT CBaseInputPin::ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) {
  if (samples == nullptr || processed == nullptr) {
    return E_POINTER;
  }
  *processed = 0;
  for (LONG i = 0; i < count; ++i) {
    const HRESULT hr = Receive(samples[i]);
    if (hr != S_OK) {
      return hr;
    }
    ++*processed;
  }
  return S_OK;
}

HRESULT CBaseInputPin::ReceiveCanBlock() {
  // It can when an input pin that an output is connected to can, or does not say.
  const int pins = m_pFilter->GetPinCount();
  bool hasOutput = false;
  for (int i = 0; i < pins; ++i) {
    CBasePin* const pin = m_pFilter->GetPin(i);
    PIN_DIRECTION direction{};
    if (pin == nullptr || FAILED(pin->QueryDirection(&direction)) || direction != PINDIR_OUTPUT) {
      continue;
    }
    hasOutput = true;
    ComPtr<IPin> peer;
    if (pin->ConnectedTo(peer.Put()) != S_OK) {
      continue;
    }
    const ComPtr<IMemInputPin> input = peer.As<IMemInputPin>();
    if (!input || input->ReceiveCanBlock() != S_FALSE) {
      return S_OK;
    }
  }
  // A filter without outputs processes the sample itself, which may block.
  return hasOutput ? S_FALSE : S_OK;
}

CBaseOutputPin::CBaseOutputPin(const char* objectName, CBaseFilter* filter, CCritSec* lock,
                               HRESULT* hr, LPCWSTR name)
    : CBasePin(objectName, filter, lock, hr, name, PINDIR_OUTPUT) {}

CBaseOutputPin::~CBaseOutputPin() = default;

ComPtr<IMemAllocator> CBaseOutputPin::HeldAllocator() {
  const os::MutexLock guard(peerLock_);
  return m_pAllocator;
}

ComPtr<IMemInputPin> CBaseOutputPin::HeldInputPin() {
  const os::MutexLock guard(peerLock_);
  return m_pInputPin;
}

void CBaseOutputPin::ReplaceAllocator(ComPtr<IMemAllocator> allocator) {
  const os::MutexLock guard(peerLock_);
  m_pAllocator.Swap(allocator);
}

void CBaseOutputPin::ReleasePeer() {
  ComPtr<IMemInputPin> input;
  ComPtr<IMemAllocator> allocator;
  const os::MutexLock guard(peerLock_);
  m_pInputPin.Swap(input);
  m_pAllocator.Swap(allocator);
}

ComPtr<IPin> CBaseOutputPin::HeldPeer() {
  return HeldInputPin().As<IPin>();
}

HRESULT CBaseOutputPin::Active() {
  const ComPtr<IMemAllocator> allocator = HeldAllocator();
  return allocator ? allocator->Commit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseOutputPin::Inactive() {
  m_bRunTimeError = false;
  const ComPtr<IMemAllocator> allocator = HeldAllocator();
  return allocator ? allocator->Decommit() : VFW_E_NO_ALLOCATOR;
}

HRESULT CBaseOutputPin::CheckConnect(IPin* pin) {
  const HRESULT hr = CBasePin::CheckConnect(pin);
  if (FAILED(hr)) {
    return hr;
  }
  ComPtr<IMemInputPin> transport = QueryFor<IMemInputPin>(pin);
  if (!transport) {
    return E_NOINTERFACE;
  }
  const os::MutexLock guard(peerLock_);
  m_pInputPin.Swap(transport);
  return S_OK;
}

HRESULT CBaseOutputPin::BreakConnect() {
  const ComPtr<IMemAllocator> allocator = HeldAllocator();
  HRESULT hr = S_OK;
  if (allocator) {
    hr = allocator->Decommit();
    if (FAILED(hr)) {
      return hr;
    }
  }
  ReleasePeer();
  return hr;
}

HRESULT CBaseOutputPin::CompleteConnect(IPin* /*pin*/) {
  ComPtr<IMemAllocator> allocator;
  const HRESULT hr = DecideAllocator(HeldInputPin().Get(), allocator.Put());
  if (SUCCEEDED(hr)) {
    ReplaceAllocator(std::move(allocator));
  }
  return hr;
}

HRESULT CBaseOutputPin::DecideAllocator(IMemInputPin* pin, IMemAllocator** allocator) {
  *allocator = nullptr;
  ALLOCATOR_PROPERTIES wanted{};
  pin->GetAllocatorRequirements(&wanted);  // a peer without requirements leaves zeros
  if (wanted.cbAlign == 0) {
    wanted.cbAlign = 1;
  }
  HRESULT hr = E_FAIL;
  for (const bool peers : {true, false}) {
    ComPtr<IMemAllocator> candidate;
    hr = peers ? pin->GetAllocator(candidate.Put()) : InitAllocator(candidate.Put());
    if (FAILED(hr) || !candidate) {
      hr = FAILED(hr) ? hr : VFW_E_NO_ALLOCATOR;
      continue;
    }
    ALLOCATOR_PROPERTIES request = wanted;
    hr = DecideBufferSize(candidate.Get(), &request);
    if (FAILED(hr)) {
      continue;
    }
    hr = pin->NotifyAllocator(candidate.Get(), FALSE);
    if (SUCCEEDED(hr)) {
      *allocator = candidate.Detach();
      return S_OK;
    }
  }
  return hr;
}

HRESULT CBaseOutputPin::GetDeliveryBuffer(IMediaSample** sample, REFERENCE_TIME* start,
                                          REFERENCE_TIME* stop, DWORD flags) {
  const ComPtr<IMemAllocator> allocator = HeldAllocator();
  return allocator ? allocator->GetBuffer(sample, start, stop, flags) : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::Deliver(IMediaSample* sample) {
  const ComPtr<IMemInputPin> input = HeldInputPin();
  return input ? input->Receive(sample) : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::InitAllocator(IMemAllocator** allocator) {
  *allocator = CMemAllocator::Create().Detach();
  return S_OK;
}

HRESULT CBaseOutputPin::DeliverEndOfStream() {
  const ComPtr<IPin> peer = HeldPeer();
  return peer ? peer->EndOfStream() : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::DeliverBeginFlush() {
  const ComPtr<IPin> peer = HeldPeer();
  return peer ? peer->BeginFlush() : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::DeliverEndFlush() {
  const ComPtr<IPin> peer = HeldPeer();
  return peer ? peer->EndFlush() : VFW_E_NOT_CONNECTED;
}

HRESULT CBaseOutputPin::DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) {
  const ComPtr<IPin> peer = HeldPeer();
  return peer ? peer->NewSegment(start, stop, rate) : VFW_E_NOT_CONNECTED;
}
