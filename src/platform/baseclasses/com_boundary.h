// Exceptions at the COM boundary: no COM method lets one pass.
#pragma once

#include <memory>
#include <system_error>
#include <utility>

#include "platform/com/types.h"
#include "platform/os/error_numbers.h"

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

// Runs the body of a COM method, or a part of it after which the method has to tidy up.
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
