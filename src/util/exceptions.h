// The exceptions of the system, and the product line's own error codes (facility 0x25). Failures
// inside are exceptions; HRESULTs are used at the COM boundary only.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "platform/com/com.h"

// Root of every failure of our own. Thrown by value, caught by reference, thread-neutral.
class TavrelException : public std::exception {};

// A failure of one component. Owner only distinguishes the exception types: a handler can catch one
// component's failures and let the others pass.
template <typename Owner, typename Base>
class ExceptionTemplate : public Base {
 public:
  explicit ExceptionTemplate(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

// A failed HRESULT of a platform or product call.
class COMException : public TavrelException {
 public:
  explicit COMException(HRESULT code) : code_(code) {}

  HRESULT code() const { return code_; }
  // "Tavrel Error 80250001: Internal error" for the product's own codes, "COM Error 80004005: "
  // followed by the platform's text for others. Rebuilt on every call, into this object: two
  // threads may not ask one exception at the same time.
  const char* what() const noexcept override;
  // The message alone, without the leading code; also refreshes the full text.
  virtual const std::string& BuildMessage() const;

 private:
  HRESULT code_;
  mutable std::string fullText_;
  mutable std::string message_;
};

// Throws COMException for a failure code; success codes, S_FALSE included, pass.
inline void ThrowIfFailed(HRESULT hr) {
  if (FAILED(hr)) {
    throw COMException(hr);
  }
}

// The message of a product code, or null when the code is not one of ours. The table is constant:
// any thread may ask.
const char* LookupErrorMessage(HRESULT code);
