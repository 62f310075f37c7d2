#include "host/cli/graph_options.h"

#include <CLI/CLI.hpp>

namespace host::cli {

void DefineGraph(CLI::App& app, GraphOptions& options) {
  app.add_option("--library", options.library, "the composer's filter library")
      ->envname("TAVREL_LIBRARY");
  app.add_flag("-v,--verbose", options.verbose, "say more on the error stream")
      ->envname("TAVREL_VERBOSE");
}

void DefineRecord(CLI::App& app, RecordOptions& options) {
  app.add_option("-o,--output", options.outputs,
                 "write the mosaic to a file or URL; may be repeated")
      ->envname("TAVREL_OUTPUT")
      ->allow_extra_args(false);
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
