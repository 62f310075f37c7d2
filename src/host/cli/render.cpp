#include "host/cli/render.h"

#include <CLI/CLI.hpp>

#include "host/cli/check.h"
#include "host/cli/wall_command.h"
#include "host/wall/wall_reader.h"

namespace host::cli {

void DefineRender(CLI::App& app, RenderOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  DefineRecord(app, options.record);
  app.add_flag("--json", options.json, "print the result as JSON")->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

ExitCode Render(const RenderOptions& options, Streams& streams) {
  const wall::WallFile file = wall::ReadWall(options.wall);
  if (!ReportWall(file, options.wall, streams)) {
    return ExitCode::kBadWall;
  }
  return RunWallCommand({file.wall, options.graph, options.record, false, options.json}, streams);
}

}  // namespace host::cli
