#include "platform/baseclasses/com_boundary.h"

#include <new>
#include <system_error>

#include "platform/os/error_numbers.h"

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
