// CComposeInputVideoPin: what the background pin and the window pins have in common.
#pragma once

#include <atomic>

#include "media/dynamic_input_pin.h"

class CCompose;

// An input pin for YV12 pictures. Takes every sample by reference, so its upstream allocator must
// have buffers enough for a whole queue. Created and owned by the filter.
class CComposeInputVideoPin : public CInputPinWithDynamicMediaType {
 public:
  // Buffers demanded from the upstream allocator. Belongs together with the high-water mark of the
  // window pins' queues: a queue is cut back before it can hold every buffer.
  static constexpr LONG kRequiredBuffers = 80;
  static constexpr LONG kBufferAlign = 32;  // bytes

  CComposeInputVideoPin(CCompose* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name, ULONG index);
  ~CComposeInputVideoPin() override;

  // S_OK for YV12 with a VIDEOINFOHEADER or VIDEOINFOHEADER2; the size is not looked at.
  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override;
  // Raises the allocator to the buffers that the pin needs; E_FAIL when it will not grant them.
  HRESULT NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) override;

  // Drops the pictures that wait in the pin.
  virtual void FlushSamples() {}
  // Takes frame duration and size (pixels) from a type with a VIDEOINFOHEADER2. S_FALSE leaves
  // everything as it was: silently for another format block, with a message for another subtype.
  // Called by the composition thread for types that samples bring.
  virtual HRESULT CheckVideoFormat(const CMediaType& type, LONG* width, LONG* height) = 0;

 protected:
  HRESULT ReadVideoFormat(const CMediaType& type, LONG* width, LONG* height);

  const ULONG index;  // input number; 0 for the background
  CCompose* const filter;
  // 100 ns units; read by the streaming thread, written with every type.
  std::atomic<REFERENCE_TIME> frameDuration;
};
