// CAtlException, thrown when the platform refuses a kernel object.
#pragma once

#include "platform/com/hresult.h"

class CAtlException {
 public:
  explicit CAtlException(HRESULT hr) : m_hr(hr) {}
  operator HRESULT() const { return m_hr; }

  HRESULT m_hr;
};
