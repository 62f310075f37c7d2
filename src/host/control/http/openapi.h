// The description of the API, from the tables that serve it: Routes and CommandKinds.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace host::control::http {

// OpenAPI 3.1.
nlohmann::ordered_json DescribeApi();

}  // namespace host::control::http
