// FilterEnumerator: walks a snapshot of a graph's filters.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/filters.h"

// Keeps a reference to each filter of the snapshot. References may be counted on any thread; the
// walk belongs to one.
class FilterEnumerator final : public CUnknown, public IEnumFilters {
 public:
  DECLARE_IUNKNOWN

  using Filters = std::vector<ComPtr<IBaseFilter>>;

  // A new enumerator with one reference that stands before the filter at `position`.
  static ComPtr<IEnumFilters> Create(Filters filters, std::size_t position = 0);
  FilterEnumerator(Filters filters, std::size_t position);

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  // S_FALSE when fewer than that many were left. fetched may be null.
  HRESULT Next(ULONG count, IBaseFilter** filters, ULONG* fetched) override;
  HRESULT Skip(ULONG count) override;
  HRESULT Reset() override;
  HRESULT Clone(IEnumFilters** copy) override;

 private:
  const Filters filters_;
  std::size_t position_;
};
