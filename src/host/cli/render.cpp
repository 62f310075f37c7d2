#include "host/cli/render.h"

#include <CLI/CLI.hpp>

namespace host::cli {

void DefineRender(CLI::App& app, RenderOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  DefineRecord(app, options.record);
  app.add_flag("--json", options.json, "print the result as JSON")->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

}  // namespace host::cli
