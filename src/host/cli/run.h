// `tavrel run WALL.toml` and `tavrel render WALL.toml -o FILE`
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "host/cli/graph_options.h"
#include "host/cli/program.h"

namespace host::cli {

struct RunOptions {
  std::filesystem::path wall;
  GraphOptions graph;
  RecordOptions record;  // of render: at least one output or a snapshot
  bool json = false;     // the result as a line of JSON; of run, also the status
  bool events = false;   // run: changes of channels and alarms as lines of JSON
  std::string http;  // run: address of the HTTP API, in place of the wall file's; empty: that one
  std::optional<std::filesystem::path> socket;  // run: instead of the wall file's; empty: none
  bool strict = false;  // render: kCouldNotStart when a channel was not shown to its end
};

void DefineRun(CLI::App& app, RunOptions& options);
void DefineRender(CLI::App& app, RunOptions& options);

// Runs a wall live, paced by the clock, until stopped or for the given time.
ExitCode Run(const RunOptions& options, Streams& streams);
// Renders a wall of files as fast as the machine can; the same files give the same frames.
ExitCode Render(const RunOptions& options, Streams& streams);

}  // namespace host::cli
