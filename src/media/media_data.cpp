#include "media/media_data.h"

#include <algorithm>
#include <string>

namespace {

ComPtr<IMediaSample3> PropertyStoreOf(IMediaSample* sample, const MediaProperty& property) {
  ComPtr<IMediaSample3> store = QueryFor<IMediaSample3>(sample);
  if (!store) {
    throw MediaDataError(property.unsupported);
  }
  return store;
}

}  // namespace

ComPtr<MediaData> MediaData::Create(IMediaSample* sample) {
  return ComPtr<MediaData>::Adopt(new MediaData(sample));
}

ULONG MediaData::AddRef() {
  return static_cast<ULONG>(count_.fetch_add(1) + 1);
}

ULONG MediaData::Release() {
  const LONG left = count_.fetch_sub(1) - 1;
  if (left == 0) {
    delete this;
  }
  return static_cast<ULONG>(left);
}

void MediaData::StoreBytes(const MediaProperty& property, const BYTE* bytes) {
  ThrowIfFailed(
      PropertyStoreOf(Sample(), property)->SetProperty(property.id, bytes, property.length));
}

bool MediaData::LoadBytes(const MediaProperty& property, BYTE* bytes) {
  const BYTE* stored = nullptr;
  ULONG length = 0;
  if (FAILED(PropertyStoreOf(Sample(), property)->GetProperty(property.id, &stored, &length))) {
    return false;
  }
  if (length != property.length) {
    throw MediaDataError("Property " + std::to_string(property.id) + " of the sample has " +
                         std::to_string(length) + " bytes instead of " +
                         std::to_string(property.length) + "; set it again or remove it");
  }
  std::copy_n(stored, length, bytes);
  return true;
}

ComPtr<MediaData2> MediaData2::Create(IMediaSample* sample) {
  return ComPtr<MediaData2>::Adopt(new MediaData2(sample));
}

HRESULT MediaData2::GetProperties(DWORD size, BYTE* properties) {
  const ComPtr<IMediaSample2> sample = QueryFor<IMediaSample2>(Sample());
  return sample ? sample->GetProperties(size, properties) : E_NOINTERFACE;
}

HRESULT MediaData2::SetProperties(DWORD size, const BYTE* properties) {
  const ComPtr<IMediaSample2> sample = QueryFor<IMediaSample2>(Sample());
  return sample ? sample->SetProperties(size, properties) : E_NOINTERFACE;
}

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
