#include "platform/baseclasses/unknown_base.h"

#include <new>
#include <system_error>

#include "platform/os/error_numbers.h"

namespace {

std::atomic<LONG> activeObjects{0};
std::atomic<LONG> moduleLocks{0};

}  // namespace

CUnknown::CUnknown(const char* /*name*/, IUnknown* outer)
    : inner_(this), owner_(outer != nullptr ? outer : &inner_) {
  activeObjects.fetch_add(1);
}

CUnknown::~CUnknown() {
  activeObjects.fetch_sub(1);
}

HRESULT CUnknown::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (object == nullptr) {
    return E_POINTER;
  }
  if (iid == IID_IUnknown) {
    return GetInterface(&inner_, object);
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

ULONG CUnknown::NonDelegatingAddRef() {
  return static_cast<ULONG>(count_.fetch_add(1) + 1);
}

ULONG CUnknown::NonDelegatingRelease() {
  const LONG left = count_.fetch_sub(1) - 1;
  if (left == 0) {
    // A destructor may call AddRef and Release on the object; the count must not reach 0 a second
    // time.
    count_.fetch_add(1);
    delete this;
  }
  return static_cast<ULONG>(left < 0 ? 0 : left);
}

HRESULT CUnknown::GetInterface(IUnknown* found, void** object) {
  if (object == nullptr) {
    return E_POINTER;
  }
  *object = found;
  found->AddRef();
  return S_OK;
}

LONG CUnknown::ObjectsActive() {
  return activeObjects.load();
}

void LockModule() {
  moduleLocks.fetch_add(1);
}
void UnlockModule() {
  moduleLocks.fetch_sub(1);
}
bool IsModuleInUse() {
  return moduleLocks.load() > 0 || CUnknown::ObjectsActive() > 0;
}

HRESULT ResultOfException() noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (const std::system_error& refused) {
    return HRESULT_FROM_WIN32(os::SystemErrorNumber(refused.code().value()));
  } catch (const CAtlException& refused) {
    return refused.m_hr;
  } catch (...) {
    return E_FAIL;
  }
}
