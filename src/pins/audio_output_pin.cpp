#include "pins/audio_output_pin.h"

#include "filter/compose.h"
#include "pins/audio_input_pin.h"
#include "platform/dshow/vfw_errors.h"

CComposeOutputAudioCompressedPin::CComposeOutputAudioCompressedPin(CCompose* composer,
                                                                   CCritSec* lock, HRESULT* hr,
                                                                   LPCWSTR name, ULONG number)
    : CBaseOutputPin(nullptr, composer, lock, hr, name), index(number), filter(composer) {
  SetReconnectWhenActive(true);
}

CComposeOutputAudioCompressedPin::~CComposeOutputAudioCompressedPin() {
  ReleasePeer();
}

HRESULT CComposeOutputAudioCompressedPin::CheckMediaType(const CMediaType* type) {
  return type->majortype == MEDIATYPE_Audio && type->subtype != GUID_NULL ? S_OK : S_FALSE;
}

HRESULT CComposeOutputAudioCompressedPin::GetMediaType(int position, CMediaType* type) {
  if (position != 0) {
    return VFW_S_NO_MORE_ITEMS;
  }
  return type != nullptr ? CopyInputType(type) : E_POINTER;
}

HRESULT CComposeOutputAudioCompressedPin::CopyInputType(CMediaType*& type) {
  const auto entry = filter->inputs.find(static_cast<LONG>(index));
  if (entry == filter->inputs.end()) {
    return E_FAIL;
  }
  CMediaType input;
  const HRESULT hr = entry->second.audioInput->ConnectionMediaType(&input);
  return FAILED(hr) ? hr : HandOut(std::move(input), type);
}

HRESULT CComposeOutputAudioCompressedPin::DecideBufferSize(IMemAllocator* allocator,
                                                           ALLOCATOR_PROPERTIES* request) {
  const auto entry = filter->inputs.find(static_cast<LONG>(index));
  CComposeInputAudioCompressedPin* const input =
      entry == filter->inputs.end() ? nullptr : entry->second.audioInput.get();
  if (input == nullptr || !input->IsConnected()) {
    filter->logger.load()->log(
        qorp::log::kError,
        "Composer: output audio pin [%d] was connected before the corresponding input pin",
        static_cast<int>(index));
    return E_FAIL;
  }
  const ComPtr<IMemAllocator> inputAllocator = input->HeldAllocator();
  if (!inputAllocator) {
    filter->logger.load()->log(
        qorp::log::kError,
        "Composer: output audio pin [%d] allocator cannot copy  its properties from the "
        "corresponding input pin",
        static_cast<int>(index));
    return E_FAIL;
  }
  HRESULT hr = inputAllocator->GetProperties(request);
  if (hr != S_OK) {
    return hr;
  }
  ALLOCATOR_PROPERTIES actual{};
  hr = allocator->SetProperties(request, &actual);
  if (FAILED(hr)) {
    return hr;
  }
  return actual.cbBuffer < request->cbBuffer || actual.cBuffers < request->cBuffers ? E_FAIL : S_OK;
}

HRESULT CComposeOutputAudioCompressedPin::CompleteConnect(IPin* pin) {
  const HRESULT hr = CBaseOutputPin::CompleteConnect(pin);
  if (FAILED(hr) || filter->IsStopped()) {
    return hr;
  }
  const ComPtr<IMemAllocator> allocator = HeldAllocator();
  return allocator ? allocator->Commit() : hr;
}

HRESULT CComposeOutputAudioCompressedPin::Disconnect() {
  const CAutoLock guard(m_pLock);
  if (!filter->IsStopped()) {
    const HRESULT hr = Inactive();
    if (FAILED(hr)) {
      return hr;
    }
  }
  return CBaseOutputPin::Disconnect();
}
