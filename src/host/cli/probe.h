// `tavrel probe SOURCE`
#pragma once

#include <string>
#include <vector>

#include "host/channel/source_probe.h"
#include "host/cli/program.h"
#include "host/units.h"

namespace host::cli {

struct ProbeOptions {
  std::string source;
  std::string frameRate = "25";  // of the canvas that the source would be shown on
  std::string program;           // number or service name; empty: none
  double limit = 10;             // seconds for opening
  bool json = false;
};

void DefineProbe(CLI::App& app, ProbeOptions& options);

// Opens the source, decodes its beginning, and prints what it carries and what a wall does with it.
ExitCode Probe(const ProbeOptions& options, Streams& streams);

// What a wall does with such a source, a sentence for each thing that differs from showing it as it
// is.
std::vector<std::string> WallTreatment(const ProbeReport& report, Ratio canvasRate);

}  // namespace host::cli
