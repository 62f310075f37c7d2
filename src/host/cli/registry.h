// `tavrel register FILE`, `tavrel unregister FILE` and `tavrel pins`
#pragma once

#include <filesystem>

#include "host/cli/graph_options.h"
#include "host/cli/program.h"

namespace host::cli {

struct RegisterOptions {
  std::filesystem::path library;
};

void DefineRegister(CLI::App& app, RegisterOptions& options);

// Call the library's own entry points.
ExitCode Register(const RegisterOptions& options, Streams& streams);
ExitCode Unregister(const RegisterOptions& options, Streams& streams);

struct PinsOptions {
  GraphOptions graph;
  int inputs = 1;
  bool json = false;
};

void DefinePins(CLI::App& app, PinsOptions& options);

// Prints the pins of a composer with so many inputs.
ExitCode Pins(const PinsOptions& options, Streams& streams);

}  // namespace host::cli
