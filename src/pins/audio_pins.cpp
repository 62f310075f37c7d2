#include "pins/audio_pins.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "pins/pin_owner.h"
#include "pins/video_pins.h"
#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"
#include "platform/os/system_time.h"
#include "util/exceptions.h"

namespace {

constexpr GUID kProductCompressedAudio{
    0xC0E9C364, 0x783D, 0x4B50, {0xAB, 0xF3, 0xF3, 0x4B, 0x80, 0x1C, 0xEE, 0xC6}};

constexpr GUID kAcceptedSubtypes[] = {
    MEDIASUBTYPE_MPEG1AudioPayload,
    MEDIASUBTYPE_MPEG1Payload,
    MEDIASUBTYPE_MPEG2_AUDIO,
    MEDIASUBTYPE_DOLBY_AC3,
    MEDIASUBTYPE_DOLBY_DDPLUS,
    MEDIASUBTYPE_RAW_AAC1,
    FourccGuid(0x01FF),
    kProductCompressedAudio,
};

// Copies the bytes of a packet. The output pin has taken over the input allocator's properties, but
// a sample's own sizes need not be true: one that claims more bytes than its buffer has, or than
// the target's, is refused.
void CopyBytes(IMediaSample* source, IMediaSample* target) {
  const LONG length = source->GetActualDataLength();
  if (length < 0 || length > source->GetSize() || length > target->GetSize()) {
    throw COMException(VFW_E_BUFFER_OVERFLOW);
  }
  ThrowIfFailed(target->SetActualDataLength(length));
  BYTE* from = nullptr;
  BYTE* to = nullptr;
  ThrowIfFailed(source->GetPointer(&from));
  ThrowIfFailed(target->GetPointer(&to));
  if (length > 0) {
    ThrowIfFailed(from != nullptr && to != nullptr ? S_OK : E_POINTER);
    std::memcpy(to, from, static_cast<std::size_t>(length));
  }
}

// Copies times, flags, media type and bytes of a packet.
void CopySampleProperties(IMediaSample* source, IMediaSample* target) {
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  if (source->GetTime(&start, &stop) == S_OK) {
    ThrowIfFailed(target->SetTime(&start, &stop));
  }
  if (source->IsSyncPoint() == S_OK) {
    ThrowIfFailed(target->SetSyncPoint(TRUE));
  }
  if (source->IsDiscontinuity() == S_OK) {
    ThrowIfFailed(target->SetDiscontinuity(TRUE));
  }
  if (source->IsPreroll() == S_OK) {
    ThrowIfFailed(target->SetPreroll(TRUE));
  }
  OwnedMediaType carried;
  if (ReadMediaType(source, &carried) == S_OK) {
    ThrowIfFailed(target->SetMediaType(carried.get()));
  }
  LONGLONG mediaStart = 0;
  LONGLONG mediaStop = 0;
  if (source->GetMediaTime(&mediaStart, &mediaStop) == S_OK) {
    ThrowIfFailed(target->SetMediaTime(&mediaStart, &mediaStop));
  }
  CopyBytes(source, target);
}

}  // namespace

CComposeInputAudioCompressedPin::CComposeInputAudioCompressedPin(PinOwner* composer, CCritSec* lock,
                                                                 HRESULT* hr, LPCWSTR name,
                                                                 ULONG number)
    : CInputPinWithDynamicMediaType(nullptr, composer, lock, hr, name),
      filter(composer),
      index(number) {
  SetReconnectWhenActive(true);
}

HRESULT CComposeInputAudioCompressedPin::CheckMediaType(const CMediaType* type) {
  const bool accepted = type->majortype == MEDIATYPE_Audio &&
                        std::find(std::begin(kAcceptedSubtypes), std::end(kAcceptedSubtypes),
                                  type->subtype) != std::end(kAcceptedSubtypes);
  return accepted ? S_OK : S_FALSE;
}

HRESULT CComposeInputAudioCompressedPin::SetMediaType(const CMediaType* type) {
  NoteActivity();
  return CInputPinWithDynamicMediaType::SetMediaType(type);
}

void CComposeInputAudioCompressedPin::NoteActivity() {
  lastActivity.store(os::MultimediaTimerMilliseconds(), std::memory_order_relaxed);
}

HRESULT CComposeInputAudioCompressedPin::OnReceive(IMediaSample* sample) {
  NoteActivity();
  // NOLINTNEXTLINE(bugprone-parent-virtual-call): the direct base's Receive is what calls this
  HRESULT hr = CBaseInputPin::Receive(sample);
  if (hr != S_OK) {
    return hr;
  }
  if (filter->IsStopped()) {
    return S_OK;
  }
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  const HRESULT timed = sample->GetTime(&start, &stop);
  if (FAILED(timed) && timed != VFW_E_SAMPLE_TIME_NOT_SET) {
    filter->Logger()->log(qorp::log::kWarning,
                          "Audio pin #%d: bad packet detected while retrieving timing (%d bytes)",
                          static_cast<int>(index), static_cast<int>(sample->GetActualDataLength()));
    return timed;
  }
  ComPtr<IMediaSample> copy;
  if (pairedOutput->GetDeliveryBuffer(copy.Put(), nullptr, nullptr, 0) != S_OK || !copy) {
    return S_OK;
  }
  CopySampleProperties(sample, copy.Get());
  if (SUCCEEDED(timed)) {
    const CComposeInputVideoWindowPin* const window = filter->WindowPin(static_cast<LONG>(index));
    if (window == nullptr) {
      return E_FAIL;
    }
    const REFERENCE_TIME shift = AddTimes(window->TimeOffset(), window->Latency());
    start = AddTimes(start, shift);
    stop = AddTimes(stop, shift);
    hr = copy->SetTime(&start, &stop);
    if (FAILED(hr)) {
      return hr;
    }
  }
  const CAutoLock guard(m_pLock);
  hr = pairedOutput->Deliver(copy.Get());
  return FAILED(hr) && hr != VFW_E_NOT_CONNECTED ? hr : S_OK;
}

CComposeOutputAudioCompressedPin::CComposeOutputAudioCompressedPin(PinOwner* composer,
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
  CComposeInputAudioCompressedPin* const input = filter->AudioInputPin(static_cast<LONG>(index));
  if (input == nullptr) {
    return E_FAIL;
  }
  CMediaType carried;
  const HRESULT hr = input->ConnectionMediaType(&carried);
  return FAILED(hr) ? hr : HandOut(std::move(carried), type);
}

HRESULT CComposeOutputAudioCompressedPin::DecideBufferSize(IMemAllocator* allocator,
                                                           ALLOCATOR_PROPERTIES* request) {
  CComposeInputAudioCompressedPin* const input = filter->AudioInputPin(static_cast<LONG>(index));
  if (input == nullptr || !input->IsConnected()) {
    filter->Logger()->log(
        qorp::log::kError,
        "Composer: output audio pin [%d] was connected before the corresponding input pin",
        static_cast<int>(index));
    return E_FAIL;
  }
  const ComPtr<IMemAllocator> inputAllocator = input->HeldAllocator();
  if (!inputAllocator) {
    filter->Logger()->log(
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
