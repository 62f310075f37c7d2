#include "media/external_metadata_media_sample.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "platform/dshow/reference_time.h"
#include "platform/dshow/vfw_errors.h"
#include "util/exceptions.h"

namespace {

// A flag of a sample, as its accessor answers: S_OK for yes, S_FALSE for no.
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
  const HRESULT timed = sample_->GetTime(&start_, &stop_);
  if (timed != VFW_E_SAMPLE_TIME_NOT_SET) {
    ThrowIfFailed(timed);
    SetFlag(AM_SAMPLE_TIMEVALID, true);
    SetFlag(AM_SAMPLE_STOPVALID, timed != VFW_S_NO_STOP_TIME);
  }
  MediaTimes times{};
  const HRESULT mediaTimed = sample_->GetMediaTime(&times.start, &times.stop);
  if (mediaTimed != VFW_E_MEDIA_TIME_NOT_SET) {
    ThrowIfFailed(mediaTimed);
    mediaTimes_ = times;
  }
}

void CExternalMetaDataMediaSample::CopyFlags() {
  SetFlag(AM_SAMPLE_SPLICEPOINT, IsSet(sample_->IsSyncPoint()));
  SetFlag(AM_SAMPLE_PREROLL, IsSet(sample_->IsPreroll()));
  SetFlag(AM_SAMPLE_DATADISCONTINUITY, IsSet(sample_->IsDiscontinuity()));
}

void CExternalMetaDataMediaSample::CopyTypeAndStream() {
  ThrowIfFailed(ReadMediaType(sample_.Get(), &wrappedType_));
  const ComPtr<IMediaSample2> sample2 = sample_.As<IMediaSample2>();
  AM_SAMPLE2_PROPERTIES all{};
  // A sample that does not tell them is wrapped without.
  if (sample2 && SUCCEEDED(sample2->GetProperties(sizeof(all), reinterpret_cast<BYTE*>(&all)))) {
    typeSpecificFlags_ = all.dwTypeSpecificFlags;
    streamId_ = all.dwStreamId;
    SetFlag(AM_SAMPLE_TIMEDISCONTINUITY, (all.dwSampleFlags & AM_SAMPLE_TIMEDISCONTINUITY) != 0);
  }
}

void CExternalMetaDataMediaSample::CopyProperties() {
  // The interface can be asked for known numbers only.
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

HRESULT CExternalMetaDataMediaSample::GetPointer(BYTE** buffer) {
  return sample_->GetPointer(buffer);
}

LONG CExternalMetaDataMediaSample::GetSize() {
  return sample_->GetSize();
}

LONG CExternalMetaDataMediaSample::GetActualDataLength() {
  return sample_->GetActualDataLength();
}

HRESULT CExternalMetaDataMediaSample::SetActualDataLength(LONG length) {
  return sample_->SetActualDataLength(length);
}

HRESULT CExternalMetaDataMediaSample::GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
  if (start == nullptr || stop == nullptr) {
    return E_POINTER;
  }
  if ((flags_ & AM_SAMPLE_TIMEVALID) == 0) {
    return VFW_E_SAMPLE_TIME_NOT_SET;
  }
  *start = start_;
  if ((flags_ & AM_SAMPLE_STOPVALID) == 0) {
    *stop = AddTimes(start_, 1);
    return VFW_S_NO_STOP_TIME;
  }
  *stop = stop_;
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
  SetFlag(AM_SAMPLE_TIMEVALID, start != nullptr);
  SetFlag(AM_SAMPLE_STOPVALID, start != nullptr && stop != nullptr);
  start_ = start != nullptr ? *start : 0;
  stop_ = start != nullptr && stop != nullptr ? *stop : 0;
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::GetMediaTime(LONGLONG* start, LONGLONG* stop) {
  if (start == nullptr || stop == nullptr) {
    return E_POINTER;
  }
  if (!mediaTimes_) {
    return VFW_E_MEDIA_TIME_NOT_SET;
  }
  *start = mediaTimes_->start;
  *stop = mediaTimes_->stop;
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::SetMediaTime(LONGLONG* start, LONGLONG* stop) {
  if (start == nullptr) {
    mediaTimes_.reset();
    return S_OK;
  }
  if (stop == nullptr) {
    return E_POINTER;
  }
  mediaTimes_ = MediaTimes{*start, *stop};
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::IsSyncPoint() {
  return FlagResult(AM_SAMPLE_SPLICEPOINT);
}

HRESULT CExternalMetaDataMediaSample::SetSyncPoint(BOOL isSyncPoint) {
  SetFlag(AM_SAMPLE_SPLICEPOINT, isSyncPoint != FALSE);
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::IsPreroll() {
  return FlagResult(AM_SAMPLE_PREROLL);
}

HRESULT CExternalMetaDataMediaSample::SetPreroll(BOOL isPreroll) {
  SetFlag(AM_SAMPLE_PREROLL, isPreroll != FALSE);
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::IsDiscontinuity() {
  return FlagResult(AM_SAMPLE_DATADISCONTINUITY);
}

HRESULT CExternalMetaDataMediaSample::SetDiscontinuity(BOOL isDiscontinuity) {
  SetFlag(AM_SAMPLE_DATADISCONTINUITY, isDiscontinuity != FALSE);
  return S_OK;
}

HRESULT CExternalMetaDataMediaSample::GetMediaType(AM_MEDIA_TYPE** type) {
  if (type == nullptr) {
    return E_POINTER;
  }
  *type = nullptr;
  if (type_ == nullptr) {
    return S_FALSE;
  }
  *type = CreateMediaType(type_.get());
  return *type == nullptr ? E_OUTOFMEMORY : S_OK;
}

HRESULT CExternalMetaDataMediaSample::SetMediaType(AM_MEDIA_TYPE* type) {
  OwnedMediaType copy;
  if (type != nullptr) {
    copy.reset(CreateMediaType(type));
    if (copy == nullptr) {
      return E_OUTOFMEMORY;
    }
  }
  type_ = std::move(copy);
  wrappedType_.reset();
  return S_OK;
}

AM_MEDIA_TYPE* CExternalMetaDataMediaSample::TypeOfProperties() const {
  return type_ != nullptr ? type_.get() : wrappedType_.get();
}

HRESULT CExternalMetaDataMediaSample::GetProperties(DWORD size, BYTE* properties) {
  if (size == 0) {
    return S_OK;
  }
  if (properties == nullptr) {
    return E_POINTER;
  }
  AM_SAMPLE2_PROPERTIES all{};
  const HRESULT hr = GetPointer(&all.pbBuffer);
  if (FAILED(hr)) {
    return hr;
  }
  all.cbData = std::min<DWORD>(size, sizeof(all));
  all.dwTypeSpecificFlags = typeSpecificFlags_;
  all.dwSampleFlags = flags_ | (TypeOfProperties() != nullptr ? AM_SAMPLE_TYPECHANGED : 0);
  all.lActual = GetActualDataLength();
  all.tStart = start_;
  all.tStop = stop_;
  all.dwStreamId = streamId_;
  all.pMediaType = TypeOfProperties();
  all.cbBuffer = GetSize();
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
  typeSpecificFlags_ = wanted.dwTypeSpecificFlags;
  flags_ = wanted.dwSampleFlags & ~AM_SAMPLE_TYPECHANGED;
  start_ = wanted.tStart;
  stop_ = wanted.tStop;
  streamId_ = wanted.dwStreamId;
  return S_OK;
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
