#include "host/feed/graph_error.h"

namespace host {

GraphError::GraphError(std::string_view what, HRESULT hr)
    : message_("cannot " + std::string(what) + ": " + COMException(hr).what()) {}

}  // namespace host
