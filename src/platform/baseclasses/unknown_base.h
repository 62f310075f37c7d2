// CUnknown: reference counting and aggregation for every object of the graph.
#pragma once

#include <atomic>

#include "platform/com/unknown.h"

// The object's own unknown, as an outer object that aggregates it sees it.
class INonDelegatingUnknown {
 public:
  virtual HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) = 0;
  virtual ULONG NonDelegatingAddRef() = 0;
  virtual ULONG NonDelegatingRelease() = 0;

 protected:
  ~INonDelegatingUnknown() = default;
};

// Base of every COM object. Its interfaces delegate to the owner: the outer object when the object
// is aggregated, the object itself otherwise. Created with a count of 0; the last Release deletes
// it. The count may change on any thread.
class CUnknown : public INonDelegatingUnknown {
 public:
  // name is for diagnostics and may be null; outer is null for an object that stands alone and is
  // never counted by the object that it owns.
  CUnknown(const char* name, IUnknown* outer);
  CUnknown(const CUnknown&) = delete;
  CUnknown& operator=(const CUnknown&) = delete;

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;
  ULONG NonDelegatingAddRef() override;
  ULONG NonDelegatingRelease() override;
  virtual ~CUnknown();

  // Where the interfaces delegate; never null.
  IUnknown* GetOwner() const { return owner_; }

  // Objects of this module that exist now: a module with none may be unloaded.
  static LONG ObjectsActive();

 protected:
  // Hands out an interface with the usual reference.
  static HRESULT GetInterface(IUnknown* found, void** object);

 private:
  class Inner final : public IUnknown {
   public:
    explicit Inner(CUnknown* object) : object_(object) {}
    HRESULT QueryInterface(REFIID iid, void** object) override {
      return object_->NonDelegatingQueryInterface(iid, object);
    }
    ULONG AddRef() override { return object_->NonDelegatingAddRef(); }
    ULONG Release() override { return object_->NonDelegatingRelease(); }

   private:
    CUnknown* object_;
  };

  Inner inner_;
  IUnknown* owner_;
  std::atomic<LONG> count_{0};
};

// The three methods of IUnknown for a class that derives from CUnknown and from interfaces.
#define DECLARE_IUNKNOWN                                       \
  HRESULT QueryInterface(REFIID iid, void** object) override { \
    return GetOwner()->QueryInterface(iid, object);            \
  }                                                            \
  ULONG AddRef() override {                                    \
    return GetOwner()->AddRef();                               \
  }                                                            \
  ULONG Release() override {                                   \
    return GetOwner()->Release();                              \
  }

// Counts what keeps a module loaded beside its objects: server locks.
void LockModule();
void UnlockModule();
bool IsModuleInUse();
