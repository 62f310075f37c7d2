#include "host/cli/run.h"

#include <CLI/CLI.hpp>

#include "host/cli/check.h"
#include "host/cli/wall_command.h"
#include "host/config/wall_reader.h"

namespace host::cli {

void DefineRun(CLI::App& app, RunOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  DefineRecord(app, options.record);
  app.add_flag("--json", options.json, "print the status as lines of JSON")->envname("TAVREL_JSON");
  app.add_flag("--events", options.events, "print alarms and changes as lines of JSON")
      ->envname("TAVREL_EVENTS");
  DefineGraph(app, options.graph);
}

ExitCode Run(const RunOptions& options, Streams& streams) {
  const config::WallFile file = LoadWall(options.wall);
  if (!ReportWall(file, options.wall, streams)) {
    return ExitCode::kBadWall;
  }
  WallCommand command;
  command.wall = file.wall;
  command.wallFile = options.wall;
  command.graph = options.graph;
  command.record = options.record;
  command.live = true;
  command.json = options.json;
  command.events = options.events;
  return RunWallCommand(command, streams);
}

}  // namespace host::cli
