#include "platform/baseclasses/class_factory.h"

#include <atomic>
#include <new>

#include "platform/baseclasses/com_boundary.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com_ptr.h"

namespace {

// Keeps its module loaded while it lives. Safe on any thread.
class ClassFactory final : public IClassFactory {
 public:
  explicit ClassFactory(const CFactoryTemplate& entry) : entry_(entry) { LockModule(); }
  ClassFactory(const ClassFactory&) = delete;
  ClassFactory& operator=(const ClassFactory&) = delete;

  HRESULT QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) {
      return E_POINTER;
    }
    if (iid != IID_IUnknown && iid != IID_IClassFactory) {
      *object = nullptr;
      return E_NOINTERFACE;
    }
    *object = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  ULONG AddRef() override { return static_cast<ULONG>(count_.fetch_add(1) + 1); }
  ULONG Release() override {
    const LONG left = count_.fetch_sub(1) - 1;
    if (left == 0) {
      delete this;
    }
    return static_cast<ULONG>(left);
  }

  HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    if (object == nullptr) {
      return E_POINTER;
    }
    *object = nullptr;
    // Only its own unknown can be handed to an object that aggregates another one.
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
    // A reference of its own keeps the object while it is asked, and ends it when it refuses.
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
  ~ClassFactory() { UnlockModule(); }

  const CFactoryTemplate& entry_;
  std::atomic<LONG> count_{0};
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
