#include "platform/baseclasses/enumerators.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/vfw_errors.h"

CEnumPins::CEnumPins(CBaseFilter* filter, const CEnumPins* original)
    : CUnknown("pin enumerator", nullptr), keepAlive_(filter), filter_(filter) {
  if (original != nullptr) {
    position_ = original->position_;
    pinCount_ = original->pinCount_;
    version_ = original->version_;
  } else {
    version_ = filter_->GetPinVersion();
    pinCount_ = filter_->GetPinCount();
  }
}

HRESULT CEnumPins::NonDelegatingQueryInterface(REFIID iid, void** object) {
  return iid == IID_IEnumPins ? GetInterface(static_cast<IEnumPins*>(this), object)
                              : CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT CEnumPins::Next(ULONG count, IPin** pins, ULONG* fetched) {
  if (pins == nullptr || (fetched == nullptr && count > 1)) {
    return pins == nullptr ? E_POINTER : E_INVALIDARG;
  }
  if (fetched != nullptr) {
    *fetched = 0;
  }
  if (IsOutOfSync()) {
    return VFW_E_ENUM_OUT_OF_SYNC;
  }
  ULONG given = 0;
  while (given < count && position_ < pinCount_) {
    CBasePin* const pin = filter_->GetPin(position_++);
    if (pin != nullptr) {
      pins[given] = ComPtr<IPin>(pin).Detach();
      ++given;
    }
  }
  if (fetched != nullptr) {
    *fetched = given;
  }
  return given == count ? S_OK : S_FALSE;
}

HRESULT CEnumPins::Skip(ULONG count) {
  if (IsOutOfSync()) {
    return VFW_E_ENUM_OUT_OF_SYNC;
  }
  const auto left = static_cast<ULONG>(pinCount_ - position_);
  if (count > left) {
    return S_FALSE;
  }
  position_ += static_cast<int>(count);
  return S_OK;
}

HRESULT CEnumPins::Reset() {
  version_ = filter_->GetPinVersion();
  pinCount_ = filter_->GetPinCount();
  position_ = 0;
  return S_OK;
}

HRESULT CEnumPins::Clone(IEnumPins** copy) {
  if (copy == nullptr) {
    return E_POINTER;
  }
  *copy = nullptr;
  if (IsOutOfSync()) {
    return VFW_E_ENUM_OUT_OF_SYNC;
  }
  *copy = ComPtr<IEnumPins>(new (std::nothrow) CEnumPins(filter_, this)).Detach();
  return *copy != nullptr ? S_OK : E_OUTOFMEMORY;
}

CEnumMediaTypes::CEnumMediaTypes(CBasePin* pin, const CEnumMediaTypes* original)
    : CUnknown("media type enumerator", nullptr), keepAlive_(pin), pin_(pin) {
  if (original != nullptr) {
    position_ = original->position_;
    version_ = original->version_;
  } else {
    version_ = pin_->GetMediaTypeVersion();
  }
}

HRESULT CEnumMediaTypes::NonDelegatingQueryInterface(REFIID iid, void** object) {
  return iid == IID_IEnumMediaTypes ? GetInterface(static_cast<IEnumMediaTypes*>(this), object)
                                    : CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT CEnumMediaTypes::ReadType(CMediaType* type) {
  return AtComBoundary([&] { return pin_->GetMediaType(position_, type); });
}

HRESULT CEnumMediaTypes::Next(ULONG count, AM_MEDIA_TYPE** types, ULONG* fetched) {
  if (types == nullptr || (fetched == nullptr && count > 1)) {
    return types == nullptr ? E_POINTER : E_INVALIDARG;
  }
  if (fetched != nullptr) {
    *fetched = 0;
  }
  if (IsOutOfSync()) {
    return VFW_E_ENUM_OUT_OF_SYNC;
  }
  ULONG given = 0;
  while (given < count) {
    CMediaType type;
    if (ReadType(&type) != S_OK) {
      break;
    }
    types[given] = CreateMediaType(&type);
    if (types[given] == nullptr) {
      break;
    }
    ++position_;
    ++given;
  }
  if (fetched != nullptr) {
    *fetched = given;
  }
  return given == count ? S_OK : S_FALSE;
}

HRESULT CEnumMediaTypes::Skip(ULONG count) {
  if (IsOutOfSync()) {
    return VFW_E_ENUM_OUT_OF_SYNC;
  }
  for (ULONG i = 0; i < count; ++i) {
    CMediaType type;
    if (ReadType(&type) != S_OK) {
      return S_FALSE;
    }
    ++position_;
  }
  return S_OK;
}

HRESULT CEnumMediaTypes::Reset() {
  version_ = pin_->GetMediaTypeVersion();
  position_ = 0;
  return S_OK;
}

HRESULT CEnumMediaTypes::Clone(IEnumMediaTypes** copy) {
  if (copy == nullptr) {
    return E_POINTER;
  }
  *copy = nullptr;
  if (IsOutOfSync()) {
    return VFW_E_ENUM_OUT_OF_SYNC;
  }
  *copy = ComPtr<IEnumMediaTypes>(new (std::nothrow) CEnumMediaTypes(pin_, this)).Detach();
  return *copy != nullptr ? S_OK : E_OUTOFMEMORY;
}

ComPtr<IEnumFilters> FilterEnumerator::Create(Filters filters, std::size_t position) {
  return ComPtr<IEnumFilters>(
      std::make_unique<FilterEnumerator>(std::move(filters), position).release());
}

FilterEnumerator::FilterEnumerator(Filters filters, std::size_t position)
    : CUnknown("filter enumerator", nullptr), filters_(std::move(filters)), position_(position) {}

HRESULT FilterEnumerator::NonDelegatingQueryInterface(REFIID iid, void** object) {
  return iid == IID_IEnumFilters ? GetInterface(static_cast<IEnumFilters*>(this), object)
                                 : CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT FilterEnumerator::Next(ULONG count, IBaseFilter** filters, ULONG* fetched) {
  if (filters == nullptr) {
    return E_POINTER;
  }
  ULONG given = 0;
  while (given < count && position_ < filters_.size()) {
    filters[given++] = ComPtr<IBaseFilter>(filters_[position_++]).Detach();
  }
  if (fetched != nullptr) {
    *fetched = given;
  }
  return given == count ? S_OK : S_FALSE;
}

HRESULT FilterEnumerator::Skip(ULONG count) {
  const std::size_t left = filters_.size() - position_;
  position_ += std::min<std::size_t>(count, left);
  return count <= left ? S_OK : S_FALSE;
}

HRESULT FilterEnumerator::Reset() {
  position_ = 0;
  return S_OK;
}

HRESULT FilterEnumerator::Clone(IEnumFilters** copy) {
  if (copy == nullptr) {
    return E_POINTER;
  }
  return AtComBoundary([&] {
    *copy = Create(filters_, position_).Detach();
    return S_OK;
  });
}
