#include <CLI/CLI.hpp>

#include "host/cli/commands.h"
#include "host/cli/wall_command.h"
#include "host/config/wall_file.h"

namespace host::cli {
namespace {

ExitCode RunWall(const RunOptions& options, bool live, Streams& streams) {
  const config::WallFile file = LoadWall(options.wall);
  if (!ReportWall(file, options.wall, streams)) {
    return ExitCode::kBadWall;
  }
  WallCommand command;
  command.wall = file.wall;
  command.wall.spare = live ? command.wall.spare : 0;
  if (!UseHttp(options.http, command.wall.http, streams)) {
    return ExitCode::kUsage;
  }
  command.wallFile = options.wall;
  if (options.socket) {
    command.wall.control.socket = options.socket;
  }
  command.graph = options.graph;
  command.record = options.record;
  command.live = live;
  command.json = options.json;
  command.events = options.events;
  command.strict = options.strict;
  return RunWallCommand(command, streams);
}

}  // namespace

void DefineRun(CLI::App& app, RunOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  DefineRecord(app, options.record);
  app.add_flag("--json", options.json, "print the status as lines of JSON")->envname("TAVREL_JSON");
  app.add_flag("--events", options.events, "print alarms and changes as lines of JSON")
      ->envname("TAVREL_EVENTS");
  DefineHttp(app, options.http, "serve the operator's page and the HTTP API at ADDRESS:PORT");
  app.add_option(
         "--socket", options.socket,
         "where `tavrel ctl` reaches the wall; \"\" for nowhere [NAME.sock in the folder of "
         "running programs]")
      ->envname("TAVREL_SOCKET");
  DefineGraph(app, options.graph);
}

void DefineRender(CLI::App& app, RunOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  DefineRecord(app, options.record);
  app.add_flag("--strict", options.strict, "fail when a channel could not be shown")
      ->envname("TAVREL_STRICT");
  app.add_flag("--json", options.json, "print the result as a line of JSON")
      ->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

ExitCode Run(const RunOptions& options, Streams& streams) {
  return RunWall(options, true, streams);
}

ExitCode Render(const RunOptions& options, Streams& streams) {
  return RunWall(options, false, streams);
}

}  // namespace host::cli
