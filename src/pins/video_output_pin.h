// CComposeOutputVideoPin: where composed frames leave.
#pragma once

#include "platform/baseclasses/base_pin.h"

class PinOwner;

// Pin "Composition". Offers the background's format as YV12 with a VIDEOINFOHEADER2 and the wall's
// aspect ratio. The frames that it delivers are the background's own samples, on the composition
// thread under the filter's lock; the allocator that it negotiates serves no frame.
class CComposeOutputVideoPin final : public CBaseOutputPin {
 public:
  static constexpr LONG kMinOutputBuffers = 30;

  CComposeOutputVideoPin(PinOwner* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name);
  ~CComposeOutputVideoPin() override;

  HRESULT CheckMediaType(const CMediaType* type) override;
  // Fails as the background pin does while that is not connected.
  HRESULT GetMediaType(int position, CMediaType* type) override;
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;
  // Quality messages from downstream are taken and dropped: the background sets the pace.
  HRESULT Notify(IBaseFilter* self, Quality quality) override;

 private:
  PinOwner* const filter;
};
