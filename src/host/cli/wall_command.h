// What run, render and demo have in common: a wall at work, its outputs, its end.
#pragma once

#include <string>

#include "host/cli/graph_options.h"
#include "host/cli/program.h"
#include "host/wall/wall.h"

namespace host::cli {

struct WallCommand {
  wall::Wall wall;
  GraphOptions graph;
  RecordOptions record;
  bool live = false;
  bool json = false;    // the result; live also the status, every second
  bool events = false;  // changes of channels and alarms, as lines of JSON
};

// Records the wall as the options say, until it ends, its time is over or somebody stops it, and
// prints what was written. kCouldNotStart when an output or the composer is not to be had; a
// channel that cannot be used is told and does not stop the wall.
ExitCode RunWallCommand(const WallCommand& command, Streams& streams);

}  // namespace host::cli
