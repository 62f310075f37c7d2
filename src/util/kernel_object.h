// Making the platform's kernel objects.
#pragma once

#include <memory>
#include <system_error>
#include <utility>

#include "platform/com/atl_exception.h"
#include "platform/os/error_numbers.h"

namespace qorp {

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

}  // namespace qorp
