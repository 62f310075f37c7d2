// The pins of a channel's compressed audio: in, and out again on the composer's clock.
#pragma once

#include <atomic>

#include "media/dynamic_pins.h"
#include "platform/baseclasses/base_pin.h"

class CComposeOutputAudioCompressedPin;
class PinOwner;

// Pin "InputAudio%d". Every packet is copied at once into a buffer of the paired output pin, moved
// onto the composer's clock as the channel's frames are, and delivered. Nothing is decoded or
// parsed. OnReceive runs on the channel's streaming thread and holds the filter's lock around the
// delivery only. A packet is dropped when the output is not connected or its allocator refuses a
// buffer; while all buffers are in use, it waits for one.
class CComposeInputAudioCompressedPin final : public CInputPinWithDynamicMediaType {
 public:
  CComposeInputAudioCompressedPin(PinOwner* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name,
                                  ULONG index);

  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT SetMediaType(const CMediaType* type) override;
  HRESULT OnReceive(IMediaSample* sample) override;

  // Set once, before the pin is connected; the output lives as long as the filter.
  void SetPairedOutput(CComposeOutputAudioCompressedPin* output) { pairedOutput = output; }

 private:
  void NoteActivity();

  PinOwner* const filter;
  const ULONG index;
  CComposeOutputAudioCompressedPin* pairedOutput = nullptr;
  // Milliseconds of the multimedia timer at the last media type or packet; for diagnostics.
  std::atomic<DWORD> lastActivity{0};
};

// Pin "OutputAudio%d". Takes media type and buffer properties from the input pin of its channel,
// which is connected first. May be connected and disconnected while the graph runs; a connection
// made while running is ready to deliver at once.
class CComposeOutputAudioCompressedPin final : public CBaseOutputPin {
 public:
  CComposeOutputAudioCompressedPin(PinOwner* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name,
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
  PinOwner* const filter;
};
