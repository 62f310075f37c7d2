// Where exceptions end: no COM method lets one pass.
#pragma once

#include "platform/com/hresult.h"

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
