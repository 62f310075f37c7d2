// `tavrel demo`
#pragma once

#include <string>

#include "host/cli/graph_options.h"
#include "host/cli/program.h"

namespace host::cli {

struct DemoOptions {
  GraphOptions graph;
  RecordOptions record;  // ten seconds, when not said otherwise; live until stopped
  int channels = 9;
  int width = 1920;
  int height = 1080;
  std::string frameRate = "25";
  std::string http;  // address of the operator's page; empty: rendered, not live
  bool json = false;
};

void DefineDemo(CLI::App& app, DemoOptions& options);

// A wall of built-in channels, rendered as fast as the machine can, or live with the page.
ExitCode Demo(const DemoOptions& options, Streams& streams);

}  // namespace host::cli
