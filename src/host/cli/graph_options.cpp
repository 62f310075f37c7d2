#include "host/cli/graph_options.h"

#include <CLI/CLI.hpp>

#include "host/cli/log_flags.h"

namespace host::cli {

void DefineGraph(CLI::App& app, GraphOptions& options) {
  app.add_option("--library", options.library, "the composer's filter library")
      ->envname("TAVREL_LIBRARY");
  DefineLog(app, options.log);
}

void DefineRecord(CLI::App& app, RecordOptions& options) {
  app.add_option("-o,--output", options.outputs,
                 "write the mosaic to a file or URL; may be repeated")
      ->envname("TAVREL_OUTPUT")
      ->allow_extra_args(false);
  app.add_flag("--overwrite", options.overwrite, "replace files that exist")
      ->envname("TAVREL_OVERWRITE");
  app.add_option("--snapshot", options.snapshot, "write a frame as a PNG file")
      ->envname("TAVREL_SNAPSHOT");
  app.add_option("--snapshot-at", options.snapshotAt, "seconds after the start [the last frame]")
      ->envname("TAVREL_SNAPSHOT_AT")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--seconds", options.seconds, "stop after so many seconds")
      ->envname("TAVREL_SECONDS")
      ->check(CLI::PositiveNumber);
}

}  // namespace host::cli
