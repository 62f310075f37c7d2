#include "platform/baseclasses/media_sample.h"

#include <algorithm>
#include <cstring>

#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"

CMediaSample::CMediaSample(const char* /*name*/, CBaseAllocator* allocator, HRESULT* /*hr*/,
                           BYTE* buffer, LONG length)
    : m_pAllocator(allocator), m_pBuffer(buffer), m_cbBuffer(length), m_lActual(length) {}

CMediaSample::~CMediaSample() = default;

HRESULT CMediaSample::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) {
    return E_POINTER;
  }
  if (iid != IID_IUnknown && iid != IID_IMediaSample && iid != IID_IMediaSample2) {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  *object = static_cast<IMediaSample2*>(this);
  AddRef();
  return S_OK;
}

ULONG CMediaSample::AddRef() {
  return static_cast<ULONG>(m_cRef.fetch_add(1) + 1);
}

ULONG CMediaSample::Release() {
  const LONG left = m_cRef.fetch_sub(1) - 1;
  if (left == 0) {
    Forget();
    // May delete the allocator and this sample: no member may be used after it.
    m_pAllocator->ReleaseBuffer(this);
  }
  return static_cast<ULONG>(left);
}

void CMediaSample::Forget() {
  m_pMediaType.reset();
  m_dwFlags = 0;
  m_dwTypeSpecificFlags = 0;
  m_dwStreamId = AM_STREAM_MEDIA;
  m_hasMediaTime = false;
}

HRESULT CMediaSample::SetPointer(BYTE* buffer, LONG length) {
  m_pBuffer = buffer;
  m_cbBuffer = length;
  m_lActual = length;
  return S_OK;
}

HRESULT CMediaSample::GetPointer(BYTE** buffer) {
  if (buffer == nullptr) {
    return E_POINTER;
  }
  *buffer = m_pBuffer;
  return S_OK;
}

LONG CMediaSample::GetSize() {
  return m_cbBuffer;
}

HRESULT CMediaSample::GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
  if (start == nullptr || stop == nullptr) {
    return E_POINTER;
  }
  if ((m_dwFlags & AM_SAMPLE_TIMEVALID) == 0) {
    return VFW_E_SAMPLE_TIME_NOT_SET;
  }
  *start = m_Start;
  if ((m_dwFlags & AM_SAMPLE_STOPVALID) == 0) {
    *stop = AddTimes(m_Start, 1);
    return VFW_S_NO_STOP_TIME;
  }
  *stop = m_End;
  return S_OK;
}

HRESULT CMediaSample::SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) {
  SetFlag(AM_SAMPLE_TIMEVALID | AM_SAMPLE_STOPVALID, false);
  if (start != nullptr) {
    m_Start = *start;
    SetFlag(AM_SAMPLE_TIMEVALID, true);
    if (stop != nullptr) {
      m_End = *stop;
      SetFlag(AM_SAMPLE_STOPVALID, true);
    }
  }
  return S_OK;
}

HRESULT CMediaSample::IsSyncPoint() {
  return FlagResult(AM_SAMPLE_SPLICEPOINT);
}

HRESULT CMediaSample::SetSyncPoint(BOOL isSyncPoint) {
  SetFlag(AM_SAMPLE_SPLICEPOINT, isSyncPoint != FALSE);
  return S_OK;
}

HRESULT CMediaSample::IsPreroll() {
  return FlagResult(AM_SAMPLE_PREROLL);
}

HRESULT CMediaSample::SetPreroll(BOOL isPreroll) {
  SetFlag(AM_SAMPLE_PREROLL, isPreroll != FALSE);
  return S_OK;
}

LONG CMediaSample::GetActualDataLength() {
  return m_lActual;
}

HRESULT CMediaSample::SetActualDataLength(LONG length) {
  if (length < 0 || length > m_cbBuffer) {
    return VFW_E_BUFFER_OVERFLOW;
  }
  m_lActual = length;
  return S_OK;
}

HRESULT CMediaSample::GetMediaType(AM_MEDIA_TYPE** type) {
  if (type == nullptr) {
    return E_POINTER;
  }
  *type = nullptr;
  if (m_pMediaType == nullptr) {
    return S_FALSE;
  }
  *type = CreateMediaType(m_pMediaType.get());
  return *type == nullptr ? E_OUTOFMEMORY : S_OK;
}

HRESULT CMediaSample::SetMediaType(AM_MEDIA_TYPE* type) {
  OwnedMediaType copy;
  if (type != nullptr) {
    copy.reset(CreateMediaType(type));
    if (copy == nullptr) {
      return E_OUTOFMEMORY;
    }
  }
  m_pMediaType = std::move(copy);
  SetFlag(AM_SAMPLE_TYPECHANGED, m_pMediaType != nullptr);
  return S_OK;
}

HRESULT CMediaSample::IsDiscontinuity() {
  return FlagResult(AM_SAMPLE_DATADISCONTINUITY);
}

HRESULT CMediaSample::SetDiscontinuity(BOOL isDiscontinuity) {
  SetFlag(AM_SAMPLE_DATADISCONTINUITY, isDiscontinuity != FALSE);
  return S_OK;
}

HRESULT CMediaSample::GetMediaTime(LONGLONG* start, LONGLONG* stop) {
  if (start == nullptr || stop == nullptr) {
    return E_POINTER;
  }
  if (!m_hasMediaTime) {
    return VFW_E_MEDIA_TIME_NOT_SET;
  }
  *start = m_MediaStart;
  *stop = m_MediaEnd;
  return S_OK;
}

HRESULT CMediaSample::SetMediaTime(LONGLONG* start, LONGLONG* stop) {
  if (start == nullptr) {
    m_hasMediaTime = false;
    return S_OK;
  }
  if (stop == nullptr) {
    return E_POINTER;
  }
  m_MediaStart = *start;
  m_MediaEnd = *stop;
  m_hasMediaTime = true;
  return S_OK;
}

HRESULT CMediaSample::GetProperties(DWORD size, BYTE* properties) {
  if (size == 0) {
    return S_OK;
  }
  if (properties == nullptr) {
    return E_POINTER;
  }
  AM_SAMPLE2_PROPERTIES all{};
  all.cbData = std::min<DWORD>(size, sizeof(all));
  all.dwTypeSpecificFlags = m_dwTypeSpecificFlags;
  all.dwSampleFlags = m_dwFlags;
  all.lActual = m_lActual;
  all.tStart = m_Start;
  all.tStop = m_End;
  all.dwStreamId = m_dwStreamId;
  all.pMediaType = m_pMediaType.get();
  all.pbBuffer = m_pBuffer;
  all.cbBuffer = m_cbBuffer;
  std::memcpy(properties, &all, all.cbData);
  return S_OK;
}

HRESULT CMediaSample::SetProperties(DWORD size, const BYTE* properties) {
  if (properties == nullptr) {
    return E_POINTER;
  }
  AM_SAMPLE2_PROPERTIES present{};
  GetProperties(sizeof(present), reinterpret_cast<BYTE*>(&present));
  AM_SAMPLE2_PROPERTIES wanted = present;
  std::memcpy(&wanted, properties, std::min<std::size_t>(size, sizeof(wanted)));
  // The buffer belongs to the allocator and stays.
  if (wanted.pbBuffer != m_pBuffer || wanted.cbBuffer != m_cbBuffer) {
    return E_INVALIDARG;
  }
  if (wanted.lActual != m_lActual) {
    const HRESULT hr = SetActualDataLength(wanted.lActual);
    if (FAILED(hr)) {
      return hr;
    }
  }
  if (wanted.pMediaType != m_pMediaType.get()) {
    const HRESULT hr = SetMediaType(wanted.pMediaType);
    if (FAILED(hr)) {
      return hr;
    }
  }
  m_dwTypeSpecificFlags = wanted.dwTypeSpecificFlags;
  m_dwFlags = wanted.dwSampleFlags;
  SetFlag(AM_SAMPLE_TYPECHANGED, m_pMediaType != nullptr);
  m_Start = wanted.tStart;
  m_End = wanted.tStop;
  m_dwStreamId = wanted.dwStreamId;
  return S_OK;
}
