// CComposeInputAudioCompressedPin: takes one channel's compressed audio.
#pragma once

#include <atomic>

#include "media/dynamic_input_pin.h"

class CCompose;
class CComposeOutputAudioCompressedPin;

// Pin "InputAudio%d". Every packet is copied at once into a buffer of the paired output pin, moved
// onto the composer's clock as the channel's pictures are, and delivered. Nothing is decoded or
// parsed. OnReceive runs on the channel's streaming thread and holds the filter's lock around the
// delivery only. A starved or unconnected output drops the packet, so that upstream never stalls.
class CComposeInputAudioCompressedPin final : public CInputPinWithDynamicMediaType {
 public:
  CComposeInputAudioCompressedPin(CCompose* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name,
                                  ULONG index);

  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT SetMediaType(const CMediaType* type) override;
  HRESULT OnReceive(IMediaSample* sample) override;

  // Set once, before the pin is connected; the output lives as long as the filter.
  void SetPairedOutput(CComposeOutputAudioCompressedPin* output) { pairedOutput = output; }
  // Milliseconds of the multimedia timer at the last media type or packet; for diagnostics.
  DWORD LastActivity() const { return lastActivity.load(std::memory_order_relaxed); }

 private:
  void NoteActivity();

  CCompose* const filter;
  const ULONG index;
  CComposeOutputAudioCompressedPin* pairedOutput = nullptr;
  std::atomic<DWORD> lastActivity{0};
};
