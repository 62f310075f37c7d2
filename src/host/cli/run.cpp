#include "host/cli/run.h"

#include <CLI/CLI.hpp>

namespace host::cli {

void DefineRun(CLI::App& app, RunOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  DefineRecord(app, options.record);
  app.add_flag("--json", options.json, "print the status as lines of JSON")->envname("TAVREL_JSON");
  app.add_flag("--events", options.events, "print alarms and changes as lines of JSON")
      ->envname("TAVREL_EVENTS");
  DefineGraph(app, options.graph);
}

}  // namespace host::cli
