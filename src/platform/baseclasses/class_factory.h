// The class factory of a filter library, and what a library gives to have one.
#pragma once

#include "platform/baseclasses/filter_setup.h"
#include "platform/com/unknown.h"

class CUnknown;

// Makes one object: outer is the aggregating unknown or null, *hr takes a failure. Returns the
// object with a count of 0, or null.
using LPFNNewCOMObject = CUnknown* (*)(IUnknown* outer, HRESULT* hr);
// Called with true when the library is loaded and with false before it is unloaded.
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
