// The base of every object of the graph: CUnknown with reference counting and aggregation, the COM
// boundary, which no exception crosses, and the critical section.
#pragma once

#include <atomic>
#include <memory>
#include <system_error>
#include <utility>

#include "platform/com/com.h"
#include "platform/os/error_numbers.h"
#include "platform/os/mutex.h"

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
  // name is for diagnostics and may be null. outer is the aggregating object, to which no reference
  // is held, or null.
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

// Server locks, which keep a module loaded as its objects do.
void LockModule();
void UnlockModule();
bool IsModuleInUse();

// Thrown when the platform refuses a kernel object.
class CAtlException {
 public:
  explicit CAtlException(HRESULT hr) : m_hr(hr) {}
  operator HRESULT() const { return m_hr; }

  HRESULT m_hr;
};

// The result code of the exception that is being handled: E_OUTOFMEMORY for exhausted memory, the
// system's number (facility Win32) for a refused system object, the code of a CAtlException, E_FAIL
// for all others.
HRESULT ResultOfException() noexcept;

// Runs the body of a COM method, or a part of it after which the method has to clean up.
template <typename Operation>
HRESULT AtComBoundary(const Operation& operation) noexcept {
  try {
    return operation();
  } catch (...) {
    return ResultOfException();
  }
}

// A new event, semaphore or the like. Throws CAtlException with the system's error (facility Win32)
// when the platform refuses it.
template <typename Object, typename... Arguments>
std::unique_ptr<Object> MakeKernelObject(Arguments&&... arguments) {
  try {
    return std::make_unique<Object>(std::forward<Arguments>(arguments)...);
  } catch (const std::system_error& refused) {
    throw CAtlException(HRESULT_FROM_WIN32(os::SystemErrorNumber(refused.code().value())));
  }
}

// A recursive lock. Lock and Unlock have their documented names.
class CAPABILITY("mutex") CCritSec {
 public:
  CCritSec() = default;
  CCritSec(const CCritSec&) = delete;
  CCritSec& operator=(const CCritSec&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  // For the checker, in a lambda that runs while the lock is held.
  void AssertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  os::RecursiveMutex mutex_;
};

// Holds a critical section for its own lifetime.
class SCOPED_CAPABILITY CAutoLock {
 public:
  explicit CAutoLock(CCritSec* lock) ACQUIRE(lock) : lock_(lock) { lock_->Lock(); }
  ~CAutoLock() RELEASE() { lock_->Unlock(); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CCritSec* lock_;
};
