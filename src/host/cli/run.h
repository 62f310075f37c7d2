// `tavrel run WALL.toml`
#pragma once

#include <filesystem>

#include "host/cli/graph_options.h"
#include "host/cli/program.h"

namespace host::cli {

struct RunOptions {
  std::filesystem::path wall;
  GraphOptions graph;
  RecordOptions record;
  bool json = false;    // the status as lines of JSON on the output stream
  bool events = false;  // alarms and changes of channels as lines of JSON on the output stream
};

void DefineRun(CLI::App& app, RunOptions& options);

// Runs a wall live, paced by the clock, until stopped or for the given time.
ExitCode Run(const RunOptions& options, Streams& streams);

}  // namespace host::cli
