// What a filter says of itself to the registry of filters.
#pragma once

#include "platform/com/guid.h"

inline constexpr DWORD MERIT_DO_NOT_USE = 0x200000;

struct AMOVIESETUP_MEDIATYPE {
  const CLSID* clsMajorType;
  const CLSID* clsMinorType;  // null stands for any subtype
};

struct AMOVIESETUP_PIN {
  LPCWSTR strName;
  BOOL bRendered;
  BOOL bOutput;
  BOOL bZero;
  BOOL bMany;
  const CLSID* clsConnectsToFilter;
  LPCWSTR strConnectsToPin;
  UINT nMediaTypes;
  const AMOVIESETUP_MEDIATYPE* lpMediaType;
};

struct AMOVIESETUP_FILTER {
  const CLSID* clsID;
  LPCWSTR strName;
  DWORD dwMerit;
  UINT nPins;
  const AMOVIESETUP_PIN* lpPin;
};
