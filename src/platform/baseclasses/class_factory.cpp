#include "platform/baseclasses/class_factory.h"

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/os/error_numbers.h"
#include "platform/os/process.h"
#include "platform/os/registry.h"

namespace {

// Keeps its module loaded while it lives, as every object does. Safe on any thread.
class ClassFactory final : public CUnknown, public IClassFactory {
 public:
  DECLARE_IUNKNOWN

  explicit ClassFactory(const CFactoryTemplate& entry)
      : CUnknown("class factory", nullptr), entry_(entry) {}

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override {
    return iid == IID_IClassFactory ? GetInterface(static_cast<IClassFactory*>(this), object)
                                    : CUnknown::NonDelegatingQueryInterface(iid, object);
  }

  HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    if (object == nullptr) {
      return E_POINTER;
    }
    *object = nullptr;
    // An object that aggregates this one may ask for its IUnknown only.
    if (outer != nullptr && iid != IID_IUnknown) {
      return E_NOINTERFACE;
    }
    CUnknown* made = nullptr;
    HRESULT hr = AtComBoundary([&] {
      HRESULT making = S_OK;
      made = entry_.m_lpfnNew(outer, &making);
      return making;
    });
    if (made == nullptr) {
      return SUCCEEDED(hr) ? E_OUTOFMEMORY : hr;
    }
    // This reference keeps the object during the query; its release deletes an object that refuses.
    made->NonDelegatingAddRef();
    if (SUCCEEDED(hr)) {
      hr = made->NonDelegatingQueryInterface(iid, object);
    }
    made->NonDelegatingRelease();
    return hr;
  }

  HRESULT LockServer(BOOL lock) override {
    if (lock != FALSE) {
      LockModule();
    } else {
      UnlockModule();
    }
    return S_OK;
  }

 private:
  const CFactoryTemplate& entry_;
};

}  // namespace

HRESULT CreateClassFactory(const CFactoryTemplate& entry, REFIID iid, void** object) {
  if (object == nullptr) {
    return E_POINTER;
  }
  *object = nullptr;
  if (iid != IID_IUnknown && iid != IID_IClassFactory) {
    return E_NOINTERFACE;
  }
  const ComPtr<IClassFactory> factory(new (std::nothrow) ClassFactory(entry));
  return factory ? factory->QueryInterface(iid, object) : E_OUTOFMEMORY;
}

namespace {

std::string ClassKey(const CLSID& clsid) {
  return std::string(kClassesKey) + "\\" + GuidToString(clsid);
}
std::string FilterKey(const CLSID& clsid) {
  return std::string(kFiltersKey) + "\\" + GuidToString(clsid);
}

HRESULT ChangeRegistry(const std::function<void(os::RegistryTree&)>& change) {
  try {
    os::Registry::OfUser().Update(change);
    return S_OK;
  } catch (const std::system_error&) {
    return ResultOfException();
  } catch (const std::runtime_error&) {
    return HRESULT_FROM_WIN32(os::kErrorBadRegistry);
  } catch (...) {
    return ResultOfException();
  }
}

void WriteFilter(os::RegistryTree& tree, const AMOVIESETUP_FILTER& setup) {
  const std::string key = FilterKey(*setup.clsID);
  tree.Erase(key);
  tree.Set(key, "", NarrowToAscii(setup.strName));
  tree.Set(key, "Merit", std::to_string(setup.dwMerit));
  for (UINT i = 0; i < setup.nPins; ++i) {
    const AMOVIESETUP_PIN& pin = setup.lpPin[i];
    const std::string pinKey = key + "\\" + std::to_string(i);
    tree.Set(pinKey, "", NarrowToAscii(pin.strName));
    tree.Set(pinKey, "Rendered", pin.bRendered != FALSE ? "1" : "0");
    tree.Set(pinKey, "Direction", pin.bOutput != FALSE ? "output" : "input");
    tree.Set(pinKey, "Zero", pin.bZero != FALSE ? "1" : "0");
    tree.Set(pinKey, "Many", pin.bMany != FALSE ? "1" : "0");
    tree.Set(pinKey, "ConnectsToFilter", GuidToString(*pin.clsConnectsToFilter));
    tree.Set(pinKey, "ConnectsToPin", NarrowToAscii(pin.strConnectsToPin));
    for (UINT t = 0; t < pin.nMediaTypes; ++t) {
      const AMOVIESETUP_MEDIATYPE& type = pin.lpMediaType[t];
      const CLSID& minor = type.clsMinorType != nullptr ? *type.clsMinorType : GUID_NULL;
      tree.Set(pinKey, "Type" + std::to_string(t),
               GuidToString(*type.clsMajorType) + " " + GuidToString(minor));
    }
  }
}

}  // namespace

HRESULT RegisterClassTemplate(const CFactoryTemplate& entry) {
  return ChangeRegistry([&](os::RegistryTree& tree) {
    const std::string key = ClassKey(*entry.m_ClsID);
    const std::string server = key + "\\" + kServerKey;
    tree.Set(key, "", NarrowToAscii(entry.m_Name));
    tree.Set(server, "", os::ModulePathOf(reinterpret_cast<const void*>(&RegisterClassTemplate)));
    tree.Set(server, "ThreadingModel", "Both");
    if (entry.m_pAMovieSetup_Filter != nullptr) {
      WriteFilter(tree, *entry.m_pAMovieSetup_Filter);
    }
  });
}

HRESULT UnregisterClassTemplate(const CFactoryTemplate& entry) {
  return ChangeRegistry([&](os::RegistryTree& tree) {
    if (entry.m_pAMovieSetup_Filter != nullptr) {
      tree.Erase(FilterKey(*entry.m_pAMovieSetup_Filter->clsID));
    }
    tree.Erase(ClassKey(*entry.m_ClsID));
  });
}

HRESULT RegisterFilterSetup(const AMOVIESETUP_FILTER& setup) {
  return ChangeRegistry([&](os::RegistryTree& tree) { WriteFilter(tree, setup); });
}

HRESULT UnregisterFilterSetup(const CLSID& clsid) {
  return ChangeRegistry([&](os::RegistryTree& tree) { tree.Erase(FilterKey(clsid)); });
}
