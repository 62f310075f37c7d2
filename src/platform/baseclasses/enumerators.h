// CEnumPins and CEnumMediaTypes: what a filter's and a pin's enumerations hand out.
#pragma once

#include "platform/baseclasses/base_filter.h"
#include "platform/baseclasses/base_pin.h"

// Walks the pins of a filter by position. Out of date (VFW_E_ENUM_OUT_OF_SYNC) once the filter's
// pin version has changed; Reset starts again with the present pins. A position whose pin is
// missing ends nothing: it is passed over.
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
