#include "host/cli/registry.h"

#include <CLI/CLI.hpp>

#include "host/wall/wall.h"

namespace host::cli {

void DefineRegister(CLI::App& app, RegisterOptions& options) {
  app.add_option("FILE", options.library, "the filter library")
      ->required()
      ->check(CLI::ExistingFile);
}

void DefinePins(CLI::App& app, PinsOptions& options) {
  app.add_option("--inputs", options.inputs, "number of inputs")
      ->capture_default_str()
      ->check(CLI::Range(0, static_cast<int>(wall::kMostChannels)));
  app.add_flag("--json", options.json, "print the result as JSON")->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

}  // namespace host::cli
