#include "media/metadata_samples.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "platform/dshow/vfw_errors.h"
#include "util/exceptions.h"

namespace {

// A flag of a sample, from the result of its accessor: S_OK for yes, S_FALSE for no.
bool IsSet(HRESULT answer) {
  ThrowIfFailed(answer);
  return answer == S_OK;
}

}  // namespace

ComPtr<IMediaSample> CExternalMetaDataMediaSample::Create(IMediaSample* sample) {
  return ComPtr<IMediaSample>(std::make_unique<CExternalMetaDataMediaSample>(sample).release());
}

CExternalMetaDataMediaSample::CExternalMetaDataMediaSample(IMediaSample* sample)
    : CUnknown("external metadata sample", nullptr), sample_(sample) {
  CopyTimes();
  CopyFlags();
  CopyTypeAndStream();
  CopyProperties();
}

void CExternalMetaDataMediaSample::CopyTimes() {
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  const HRESULT timed = sample_->GetTime(&start, &stop);
  if (timed != VFW_E_SAMPLE_TIME_NOT_SET) {
    ThrowIfFailed(timed);
    own_.SetTime(&start, timed == VFW_S_NO_STOP_TIME ? nullptr : &stop);
  }
  const HRESULT mediaTimed = sample_->GetMediaTime(&start, &stop);
  if (mediaTimed != VFW_E_MEDIA_TIME_NOT_SET) {
    ThrowIfFailed(mediaTimed);
    own_.SetMediaTime(&start, &stop);
  }
}

void CExternalMetaDataMediaSample::CopyFlags() {
  own_.SetSyncPoint(IsSet(sample_->IsSyncPoint()));
  own_.SetPreroll(IsSet(sample_->IsPreroll()));
  own_.SetDiscontinuity(IsSet(sample_->IsDiscontinuity()));
}

void CExternalMetaDataMediaSample::CopyTypeAndStream() {
  ThrowIfFailed(ReadMediaType(sample_.Get(), &wrappedType_));
  const ComPtr<IMediaSample2> sample2 = sample_.As<IMediaSample2>();
  AM_SAMPLE2_PROPERTIES all{};
  // A sample that does not report these is wrapped without them.
  if (sample2 && SUCCEEDED(sample2->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)))) {
    AM_SAMPLE2_PROPERTIES mine{};
    own_.GetProperties(sizeof(mine), reinterpret_cast<BYTE*>(&mine));
    mine.dwTypeSpecificFlags = all.dwTypeSpecificFlags;
    mine.dwStreamId = all.dwStreamId;
    mine.dwSampleFlags |= all.dwSampleFlags & AM_SAMPLE_TIMEDISCONTINUITY;
    own_.SetProperties(sizeof(mine), reinterpret_cast<const BYTE*>(&mine));
  }
}

void CExternalMetaDataMediaSample::CopyProperties() {
  // The interface cannot list its properties: only known ids can be asked for.
  const ComPtr<IMediaSample3> sample3 = sample_.As<IMediaSample3>();
  if (!sample3) {
    return;
  }
  for (const MediaProperty& property : kMediaProperties) {
    const BYTE* bytes = nullptr;
    ULONG length = 0;
    if (SUCCEEDED(sample3->GetProperty(property.id, &bytes, &length)) && bytes != nullptr) {
      ThrowIfFailed(SetProperty(property.id, bytes, length));
    }
  }
}

HRESULT CExternalMetaDataMediaSample::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IMediaSample || iid == IID_IMediaSample2 || iid == IID_IMediaSample3) {
    return GetInterface(static_cast<IMediaSample3*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT CExternalMetaDataMediaSample::SetMediaType(AM_MEDIA_TYPE* type) {
  const HRESULT hr = own_.SetMediaType(type);
  if (SUCCEEDED(hr)) {
    wrappedType_.reset();
  }
  return hr;
}

HRESULT CExternalMetaDataMediaSample::GetProperties(DWORD size, BYTE* properties) {
  if (size == 0) {
    return S_OK;
  }
  if (properties == nullptr) {
    return E_POINTER;
  }
  AM_SAMPLE2_PROPERTIES all{};
  own_.GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all));
  const HRESULT hr = GetPointer(&all.pbBuffer);
  if (FAILED(hr)) {
    return hr;
  }
  all.cbData = std::min<DWORD>(size, sizeof(all));
  all.cbBuffer = GetSize();
  all.lActual = GetActualDataLength();
  if (wrappedType_ != nullptr) {
    all.pMediaType = wrappedType_.get();
    all.dwSampleFlags |= AM_SAMPLE_TYPECHANGED;
  }
  std::memcpy(properties, &all, all.cbData);
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::SetProperties(DWORD size, const BYTE* properties) {
  if (properties == nullptr) {
    return E_POINTER;
  }
  AM_SAMPLE2_PROPERTIES present{};
  HRESULT hr = GetProperties(sizeof(present), reinterpret_cast<BYTE*>(&present));
  if (FAILED(hr)) {
    return hr;
  }
  AM_SAMPLE2_PROPERTIES wanted = present;
  std::memcpy(&wanted, properties, std::min<std::size_t>(size, sizeof(wanted)));
  // The buffer is the wrapped sample's and stays.
  if (wanted.pbBuffer != present.pbBuffer || wanted.cbBuffer != present.cbBuffer) {
    return E_INVALIDARG;
  }
  if (wanted.lActual != present.lActual) {
    hr = SetActualDataLength(wanted.lActual);
    if (FAILED(hr)) {
      return hr;
    }
  }
  if (wanted.pMediaType != present.pMediaType) {
    hr = SetMediaType(wanted.pMediaType);
    if (FAILED(hr)) {
      return hr;
    }
  }
  AM_SAMPLE2_PROPERTIES mine{};
  own_.GetProperties(sizeof(mine), reinterpret_cast<BYTE*>(&mine));
  mine.dwTypeSpecificFlags = wanted.dwTypeSpecificFlags;
  mine.dwSampleFlags = wanted.dwSampleFlags;
  mine.tStart = wanted.tStart;
  mine.tStop = wanted.tStop;
  mine.dwStreamId = wanted.dwStreamId;
  return own_.SetProperties(sizeof(mine), reinterpret_cast<const BYTE*>(&mine));
}

HRESULT CExternalMetaDataMediaSample::GetProperty(LONG id, const BYTE** bytes, ULONG* length) {
  if (bytes == nullptr || length == nullptr) {
    return E_POINTER;
  }
  const auto found = properties_.find(id);
  const bool stored = found != properties_.end();
  *bytes = stored ? found->second.data() : nullptr;
  *length = stored ? static_cast<ULONG>(found->second.size()) : 0;
  return stored ? S_OK : E_FAIL;
}

HRESULT CExternalMetaDataMediaSample::SetProperty(LONG id, const BYTE* bytes, ULONG length) {
  if (bytes == nullptr && length != 0) {
    return E_POINTER;
  }
  try {
    std::vector<BYTE> copy(bytes, bytes + length);
    properties_[id].swap(copy);
    return S_OK;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

HRESULT CExternalMetaDataMediaSample::RemoveProperty(LONG id) {
  properties_.erase(id);
  return S_OK;
}

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
