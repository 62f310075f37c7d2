// What run, render and demo have in common: what is to be written, a wall at work, its end.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "host/cli/commands.h"
#include "host/cli/program.h"
#include "host/config/wall.h"

namespace host::cli {

struct WallCommand {
  config::Wall wall;
  GraphOptions graph;
  RecordOptions record;
  bool live = false;
  bool json = false;                 // the result; live also the status, every second
  bool events = false;               // changes of channels and alarms, as lines of JSON
  bool strict = false;               // a channel that could not be shown is a failure
  std::filesystem::path wallFile{};  // that the wall comes from; empty: none
};

// Records the wall as the options say, until it ends, its time is over or somebody stops it, and
// prints what was written. kUsage when the arguments do not go together with the wall or with files
// that exist: then nothing was opened. kCouldNotStart when an output or the composer is not to be
// had; a channel that cannot be used is reported and does not stop the wall.
ExitCode RunWallCommand(const WallCommand& command, Streams& streams);

// What a run is to write, and what forbids it.
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
