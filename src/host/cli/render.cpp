#include "host/cli/render.h"

#include <CLI/CLI.hpp>

#include "host/cli/check.h"
#include "host/cli/wall_command.h"
#include "host/config/wall_reader.h"

namespace host::cli {

void DefineRender(CLI::App& app, RenderOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  DefineRecord(app, options.record);
  app.add_flag("--strict", options.strict, "fail when a channel could not be shown")
      ->envname("TAVREL_STRICT");
  app.add_flag("--json", options.json, "print the result as a line of JSON")
      ->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

ExitCode Render(const RenderOptions& options, Streams& streams) {
  const config::WallFile file = LoadWall(options.wall);
  if (!ReportWall(file, options.wall, streams)) {
    return ExitCode::kBadWall;
  }
  WallCommand command;
  command.wall = file.wall;
  command.wallFile = options.wall;
  command.graph = options.graph;
  command.record = options.record;
  command.json = options.json;
  command.strict = options.strict;
  return RunWallCommand(command, streams);
}

}  // namespace host::cli
