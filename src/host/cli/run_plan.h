// RunPlan: what a run is to write, and what forbids it.
#pragma once

#include <string>
#include <vector>

#include "host/cli/wall_command.h"
#include "host/config/wall.h"

namespace host::cli {

struct RunPlan {
  std::vector<config::Output> outputs;  // those of the arguments, otherwise those of the wall
  std::vector<config::Screen> screens;  // likewise
  bool toStandardOutput = false;        // one of them is the standard output
  std::vector<std::string> mistakes;    // sentences; with one, nothing may be opened
  std::vector<std::string> remarks;     // warnings and notes about the arguments
};

// Looks at the arguments, at the files that exist and at all that the wall opens; opens nothing.
RunPlan PlanRun(const WallCommand& command);

}  // namespace host::cli
