// CComposeOutputAudioCompressedPin: where one channel's compressed audio leaves.
#pragma once

#include "platform/baseclasses/base_output_pin.h"

class CCompose;

// Pin "OutputAudio%d". Takes media type and buffer properties from the input pin of its channel,
// which is connected first. May be connected and disconnected while the graph runs; a connection
// made while running is ready to deliver at once.
class CComposeOutputAudioCompressedPin final : public CBaseOutputPin {
 public:
  CComposeOutputAudioCompressedPin(CCompose* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name,
                                   ULONG index);
  ~CComposeOutputAudioCompressedPin() override;

  // Any audio type with a subtype; what the input carries is only the first proposal.
  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT CompleteConnect(IPin* pin) override;
  // The input pin's type at position 0; its error while it is not connected. E_POINTER without a
  // type to fill.
  HRESULT GetMediaType(int position, CMediaType* type) override;
  // The same; *type is filled or, when it is null, a copy is handed out to the caller (E_FAIL
  // without memory).
  HRESULT CopyInputType(CMediaType*& type);
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;
  HRESULT Disconnect() override;

 private:
  const ULONG index;
  CCompose* const filter;
};
