#include "platform/baseclasses/mtype.h"

#include <cstring>
#include <new>
#include <utility>

#include "platform/dshow/vfw_errors.h"

namespace {

void MakeEmpty(AM_MEDIA_TYPE& type) {
  type = AM_MEDIA_TYPE{};
  type.bFixedSizeSamples = TRUE;
  type.lSampleSize = 1;
}

}  // namespace

HRESULT CopyMediaType(AM_MEDIA_TYPE* target, const AM_MEDIA_TYPE* source) {
  *target = *source;
  target->pUnk = nullptr;
  target->cbFormat = 0;
  target->pbFormat = nullptr;
  if (source->cbFormat != 0 && source->pbFormat != nullptr) {
    target->pbFormat = static_cast<BYTE*>(CoTaskMemAlloc(source->cbFormat));
    if (target->pbFormat == nullptr) {
      return E_OUTOFMEMORY;
    }
    target->cbFormat = source->cbFormat;
    std::memcpy(target->pbFormat, source->pbFormat, source->cbFormat);
  }
  if (source->pUnk != nullptr) {
    target->pUnk = source->pUnk;
    target->pUnk->AddRef();
  }
  return S_OK;
}

void FreeMediaType(AM_MEDIA_TYPE& type) {
  CoTaskMemFree(type.pbFormat);
  type.pbFormat = nullptr;
  type.cbFormat = 0;
  if (type.pUnk != nullptr) {
    type.pUnk->Release();
    type.pUnk = nullptr;
  }
}

AM_MEDIA_TYPE* CreateMediaType(const AM_MEDIA_TYPE* source) {
  TaskMemory<AM_MEDIA_TYPE> copy(
      static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE))));
  if (copy == nullptr || FAILED(CopyMediaType(copy.get(), source))) {
    return nullptr;
  }
  return copy.release();
}

void DeleteMediaType(AM_MEDIA_TYPE* type) {
  if (type != nullptr) {
    FreeMediaType(*type);
    CoTaskMemFree(type);
  }
}

HRESULT ReadMediaType(IMediaSample* sample, OwnedMediaType* type) {
  AM_MEDIA_TYPE* carried = nullptr;
  const HRESULT hr = sample->GetMediaType(&carried);
  type->reset(hr == S_OK ? carried : nullptr);
  return hr == S_OK && carried == nullptr ? VFW_E_INVALIDMEDIATYPE : hr;
}

CMediaType::CMediaType() {
  MakeEmpty(*this);
}

CMediaType::CMediaType(const GUID* major) : CMediaType() {
  majortype = *major;
}

CMediaType::CMediaType(const AM_MEDIA_TYPE& other, HRESULT* hr) : CMediaType() {
  const HRESULT copied = Set(other);
  if (hr != nullptr) {
    *hr = copied;
  } else if (FAILED(copied)) {
    throw std::bad_alloc();
  }
}

CMediaType::CMediaType(const CMediaType& other)
    : CMediaType(static_cast<const AM_MEDIA_TYPE&>(other)) {}

CMediaType::CMediaType(CMediaType&& other) noexcept : AM_MEDIA_TYPE(other) {
  MakeEmpty(other);
}

CMediaType::~CMediaType() {
  FreeMediaType(*this);
}

CMediaType& CMediaType::operator=(const CMediaType& other) {
  return *this = static_cast<const AM_MEDIA_TYPE&>(other);
}

CMediaType& CMediaType::operator=(const AM_MEDIA_TYPE& other) {
  if (FAILED(Set(other))) {
    throw std::bad_alloc();
  }
  return *this;
}

CMediaType& CMediaType::operator=(CMediaType&& other) noexcept {
  std::swap(static_cast<AM_MEDIA_TYPE&>(*this), static_cast<AM_MEDIA_TYPE&>(other));
  return *this;
}

HRESULT CMediaType::Set(const AM_MEDIA_TYPE& other) {
  if (&other == this) {
    return S_OK;
  }
  AM_MEDIA_TYPE copy;
  const HRESULT hr = CopyMediaType(&copy, &other);
  if (FAILED(hr)) {
    return hr;
  }
  FreeMediaType(*this);
  static_cast<AM_MEDIA_TYPE&>(*this) = copy;
  return S_OK;
}

void CMediaType::SetSampleSize(ULONG size) {
  if (size == 0) {
    SetVariableSize();
  } else {
    bFixedSizeSamples = TRUE;
    lSampleSize = size;
  }
}

bool CMediaType::SetFormat(const BYTE* format, ULONG length) {
  if (AllocFormatBuffer(length) == nullptr) {
    return false;
  }
  if (length > 0) {
    std::memcpy(pbFormat, format, length);
  }
  return true;
}

BYTE* CMediaType::AllocFormatBuffer(ULONG length) {
  BYTE* const block = static_cast<BYTE*>(CoTaskMemAlloc(length));
  if (block == nullptr) {
    return nullptr;
  }
  CoTaskMemFree(pbFormat);
  pbFormat = block;
  cbFormat = length;
  return pbFormat;
}

bool CMediaType::IsPartiallySpecified() const {
  return majortype == GUID_NULL || formattype == GUID_NULL;
}

bool CMediaType::MatchesPartial(const CMediaType& partial) const {
  if (partial.majortype != GUID_NULL && majortype != partial.majortype) {
    return false;
  }
  if (partial.subtype != GUID_NULL && subtype != partial.subtype) {
    return false;
  }
  if (partial.formattype != GUID_NULL) {
    return formattype == partial.formattype && cbFormat == partial.cbFormat &&
           (cbFormat == 0 || std::memcmp(pbFormat, partial.pbFormat, cbFormat) == 0);
  }
  return true;
}

bool CMediaType::Equals(const AM_MEDIA_TYPE& other) const {
  return majortype == other.majortype && subtype == other.subtype &&
         formattype == other.formattype && cbFormat == other.cbFormat &&
         (cbFormat == 0 || std::memcmp(pbFormat, other.pbFormat, cbFormat) == 0);
}

HRESULT HandOut(CMediaType&& type, CMediaType*& target) {
  if (target != nullptr) {
    *target = std::move(type);
    return S_OK;
  }
  target = new (std::nothrow) CMediaType(std::move(type));
  return target != nullptr ? S_OK : E_FAIL;
}
