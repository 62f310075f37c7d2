// The four exported entry points of a filter library. Compiled into each library of its own; the
// library defines the table of its classes.

#include "platform/baseclasses/class_factory.h"
#include "platform/baseclasses/unknown_base.h"

extern const CFactoryTemplate g_Templates[];
extern const int g_cTemplates;

#define TAVREL_EXPORT extern "C" __attribute__((visibility("default")))

TAVREL_EXPORT HRESULT DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  if (object == nullptr) {
    return E_POINTER;
  }
  *object = nullptr;
  if (iid != IID_IUnknown && iid != IID_IClassFactory) {
    return E_NOINTERFACE;
  }
  for (int i = 0; i < g_cTemplates; ++i) {
    if (*g_Templates[i].m_ClsID == clsid) {
      return CreateClassFactory(g_Templates[i], iid, object);
    }
  }
  return CLASS_E_CLASSNOTAVAILABLE;
}

TAVREL_EXPORT HRESULT DllCanUnloadNow() {
  return IsModuleInUse() ? S_FALSE : S_OK;
}

TAVREL_EXPORT HRESULT DllRegisterServer() {
  for (int i = 0; i < g_cTemplates; ++i) {
    const HRESULT hr = RegisterClassTemplate(g_Templates[i]);
    if (FAILED(hr)) {
      return hr;
    }
  }
  return S_OK;
}

TAVREL_EXPORT HRESULT DllUnregisterServer() {
  HRESULT result = S_OK;
  for (int i = 0; i < g_cTemplates; ++i) {
    const HRESULT hr = UnregisterClassTemplate(g_Templates[i]);
    if (FAILED(hr) && SUCCEEDED(result)) {
      result = hr;
    }
  }
  return result;
}
