#include "platform/graph/filter_enumerator.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "platform/baseclasses/unknown_base.h"

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
