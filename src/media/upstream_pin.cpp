#include "media/upstream_pin.h"

HRESULT UpStreamPin::Deliver(MediaData* data) {
  return pin_->Deliver(data->Sample());
}

HRESULT UpStreamPin::DeliverEndOfStream() {
  return pin_->DeliverEndOfStream();
}

HRESULT UpStreamPin::GetDeliveryBuffer(MediaData** data, REFERENCE_TIME* start,
                                       REFERENCE_TIME* stop, DWORD flags) {
  ComPtr<IMediaSample> sample;
  const HRESULT hr = pin_->GetDeliveryBuffer(sample.Put(), start, stop, flags);
  if (SUCCEEDED(hr)) {
    *data = MediaData::Create(sample.Get()).Detach();
  }
  return hr;
}

HRESULT UpStreamPin::DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) {
  return pin_->DecideBufferSize(allocator, request);
}

HRESULT UpStreamPin::Activate() {
  return pin_->Active();
}

HRESULT UpStreamPin::Deactivate() {
  return pin_->Inactive();
}
