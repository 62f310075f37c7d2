// What those who watch the wall as a service get of it.
#pragma once

#include <functional>
#include <string>

#include "host/control/metrics_text.h"

namespace host::control::http {

// Called on the server's thread; each returns at once. One that is empty has nothing to say.
struct Monitoring {
  std::function<void(MetricsText&)> metrics;
  // Why the composition does not go on, as a sentence; empty while it does.
  std::function<std::string()> whyNotAlive;
  // Why nobody gets the wall's frames; empty while somebody may.
  std::function<std::string()> whyNotReady;
};

}  // namespace host::control::http
