// IOutputPin and UpStreamPin: what a stream worker sees of the output pin that it feeds.
#pragma once

#include "media/media_data.h"
#include "platform/baseclasses/base_output_pin.h"

// An outlet for samples. Called by the worker's thread; Activate and Deactivate by the thread that
// changes the filter's state.
class IOutputPin {
 public:
  virtual ~IOutputPin() = default;

  virtual HRESULT Deliver(MediaData* data) = 0;
  virtual HRESULT DeliverEndOfStream() = 0;
  // A free buffer as a new MediaData with one reference, which the caller owns. start, stop: 100 ns
  // units, may be null; flags: AM_GBF_*.
  virtual HRESULT GetDeliveryBuffer(MediaData** data, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                                    DWORD flags) = 0;
  virtual HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) = 0;
  virtual HRESULT Activate() = 0;
  virtual HRESULT Deactivate() = 0;
};

// The outlet over a pin, which it does not own.
class UpStreamPin final : public IOutputPin {
 public:
  explicit UpStreamPin(CBaseOutputPin* pin) : pin_(pin) {}

  HRESULT Deliver(MediaData* data) override;
  HRESULT DeliverEndOfStream() override;
  HRESULT GetDeliveryBuffer(MediaData** data, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                            DWORD flags) override;
  HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) override;
  HRESULT Activate() override;
  HRESULT Deactivate() override;

 private:
  CBaseOutputPin* const pin_;
};
