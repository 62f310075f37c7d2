// CEnumPins, CEnumMediaTypes and FilterEnumerator: the enumerators of a filter's pins, a pin's
// media types and a graph's filters.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/baseclasses/base_filter.h"
#include "platform/baseclasses/base_pin.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/filters.h"

// Walks the pins of a filter by position. Out of date (VFW_E_ENUM_OUT_OF_SYNC) once the filter's
// pin version has changed; Reset starts again with the present pins. A position without a pin is
// skipped.
class CEnumPins final : public CUnknown, public IEnumPins {
 public:
  DECLARE_IUNKNOWN

  CEnumPins(CBaseFilter* filter, const CEnumPins* original);

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  HRESULT Next(ULONG count, IPin** pins, ULONG* fetched) override;
  HRESULT Skip(ULONG count) override;
  HRESULT Reset() override;
  HRESULT Clone(IEnumPins** copy) override;

 private:
  bool IsOutOfSync() const { return version_ != filter_->GetPinVersion(); }

  ComPtr<IBaseFilter> keepAlive_;
  CBaseFilter* filter_;
  int position_ = 0;
  int pinCount_ = 0;
  LONG version_ = 0;
};

// Walks the preferred media types of a pin by position.
class CEnumMediaTypes final : public CUnknown, public IEnumMediaTypes {
 public:
  DECLARE_IUNKNOWN

  CEnumMediaTypes(CBasePin* pin, const CEnumMediaTypes* original);

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  HRESULT Next(ULONG count, AM_MEDIA_TYPE** types, ULONG* fetched) override;
  HRESULT Skip(ULONG count) override;
  HRESULT Reset() override;
  HRESULT Clone(IEnumMediaTypes** copy) override;

 private:
  bool IsOutOfSync() const { return version_ != pin_->GetMediaTypeVersion(); }
  HRESULT ReadType(CMediaType* type);

  ComPtr<IPin> keepAlive_;
  CBasePin* pin_;
  int position_ = 0;
  LONG version_ = 0;
};

// Walks a snapshot of a graph's filters, with a reference to each. AddRef and Release on any
// thread; the walk on one.
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
