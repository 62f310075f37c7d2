#include "platform/baseclasses/base_output_pin.h"

#include "platform/dshow/vfw_errors.h"

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
  pin->GetAllocatorRequirements(&wanted);  // a peer without demands leaves zeros
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
