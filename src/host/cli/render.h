// `tavrel render WALL.toml -o FILE`
#pragma once

#include <filesystem>

#include "host/cli/graph_options.h"
#include "host/cli/program.h"

namespace host::cli {

struct RenderOptions {
  std::filesystem::path wall;
  GraphOptions graph;
  RecordOptions record;  // at least one output or a snapshot
  bool json = false;
  bool strict = false;  // kCouldNotStart when a channel could not be shown to its end
};

void DefineRender(CLI::App& app, RenderOptions& options);

// Renders a wall of files as fast as the machine can; the same files give the same pictures.
ExitCode Render(const RenderOptions& options, Streams& streams);

}  // namespace host::cli
