// The options of a command about its log.
#pragma once

#include "host/config/wall.h"

namespace CLI {
class App;
}

namespace host::cli {

void DefineLog(CLI::App& app, config::LogOptions& options);

}  // namespace host::cli
