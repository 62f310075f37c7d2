// Failures of the media graph, in the host's words.
#pragma once

#include <string>
#include <string_view>

#include "util/exceptions.h"

namespace host {

// What could not be done in the graph, and why.
class GraphError : public TavrelException {
 public:
  GraphError(std::string_view what, HRESULT hr);
  explicit GraphError(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

// Throws GraphError for a failed result; what says what was being done ("connect ...").
inline void Check(HRESULT hr, std::string_view what) {
  if (FAILED(hr)) {
    throw GraphError(what, hr);
  }
}

}  // namespace host
