// The classes of a filter library: their descriptions, the factory that makes them, and their
// entries in the registry.
#pragma once

#include "platform/com/com.h"

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

class CUnknown;

// Makes one object: outer is the aggregating unknown or null, *hr takes a failure. Returns the
// object with a count of 0, or null.
using LPFNNewCOMObject = CUnknown* (*)(IUnknown* outer, HRESULT* hr);
// Part of the documented structure; the entry points do not call it.
using LPFNInitRoutine = void (*)(BOOL loading, const CLSID* clsid);

// One class of a library. A library defines g_Templates and g_cTemplates for the entry points.
struct CFactoryTemplate {
  LPCWSTR m_Name;
  const CLSID* m_ClsID;
  LPFNNewCOMObject m_lpfnNew;
  LPFNInitRoutine m_lpfnInit;
  const AMOVIESETUP_FILTER* m_pAMovieSetup_Filter;
};

// A factory for the class of a template, with one reference; E_NOINTERFACE unless iid is IUnknown
// or IClassFactory. The template must outlive it.
HRESULT CreateClassFactory(const CFactoryTemplate& entry, REFIID iid, void** object);

// The registry's keys. A class's key has its name (default value) and the subkey InprocServer32
// with the library's path; a filter's key has its name, merit and a subkey for each pin, numbered
// from 0.
inline constexpr const char* kClassesKey = "CLSID";
inline constexpr const char* kServerKey = "InprocServer32";
inline constexpr const char* kFiltersKey = "Filters";

// Enters the class (and its filter setup, when it has one) with the path of the library that holds
// this code. Errors are those of the registry as HRESULTs of facility Win32.
HRESULT RegisterClassTemplate(const CFactoryTemplate& entry);
// Removes filter and class; missing entries are no error.
HRESULT UnregisterClassTemplate(const CFactoryTemplate& entry);

HRESULT RegisterFilterSetup(const AMOVIESETUP_FILTER& setup);
HRESULT UnregisterFilterSetup(const CLSID& clsid);
