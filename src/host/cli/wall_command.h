// The common part of run, render and demo: which outputs are written, the running wall, its end.
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

// Records the wall as the options say, until it ends, its time is over or it is stopped, and
// prints what was written. kUsage when the arguments conflict with the wall or with files
// that exist: then nothing was opened. kCouldNotStart when an output or the composer cannot be
// used; a channel that cannot be used is reported and does not stop the wall.
ExitCode RunWallCommand(const WallCommand& command, Streams& streams);

// The outputs of a run, and the mistakes that forbid it.
struct RunPlan {
  std::vector<config::Output> outputs;  // those of the arguments, otherwise those of the wall
  std::vector<config::Screen> screens;  // likewise
  bool toStandardOutput = false;        // one of them is the standard output
  std::vector<std::string> mistakes;    // sentences; with one, nothing may be opened
  std::vector<std::string> remarks;     // warnings and notes about the arguments
};

// Checks the arguments, the files that exist and everything that the wall would open; opens
// nothing.
RunPlan PlanRun(const WallCommand& command);

}  // namespace host::cli
