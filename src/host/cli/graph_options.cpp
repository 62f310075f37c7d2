#include "host/cli/graph_options.h"

#include <cstdio>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "host/cli/log_flags.h"

namespace host::cli {

void DefineGraph(CLI::App& app, GraphOptions& options) {
  app.add_option("--library", options.library, "the composer's filter library")
      ->envname("TAVREL_LIBRARY");
  DefineLog(app, options.log);
}

namespace {

constexpr double kMin = 0.001;  // seconds
constexpr double kMax = 1e9;

std::string Plain(double number) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.10g", number);
  return text;
}

}  // namespace

std::function<std::string(const std::string&)> SecondsBetween(double least, double most) {
  return [least, most](const std::string& text) -> std::string {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    const bool isNumber = end != text.c_str() && *end == '\0';
    // What is no number lies nowhere.
    if (isNumber && seconds >= least && seconds <= most) {
      return {};
    }
    return "must be seconds, from " + Plain(least) + " to " + Plain(most) + ", not " + text;
  };
}

void DefineRecord(CLI::App& app, RecordOptions& options) {
  app.add_option("-o,--output", options.outputs,
                 "write the mosaic to a file, a URL or - for the standard output; may be repeated")
      ->envname("TAVREL_OUTPUT")
      ->allow_extra_args(false);
  app.add_option("--format", options.format,
                 "container of an --output whose name does not tell it, such as mpegts for -")
      ->envname("TAVREL_FORMAT");
  app.add_flag("--overwrite", options.overwrite, "replace files that exist")
      ->envname("TAVREL_OVERWRITE");
  app.add_option("--snapshot", options.snapshot, "write a frame as a PNG file")
      ->envname("TAVREL_SNAPSHOT");
  app.add_option("--snapshot-at", options.snapshotAt, "seconds after the start [the last frame]")
      ->envname("TAVREL_SNAPSHOT_AT")
      ->check(SecondsBetween(0, kMax));
  app.add_option("--seconds", options.seconds, "stop after so many seconds")
      ->envname("TAVREL_SECONDS")
      ->check(SecondsBetween(kMin, kMax));
}

}  // namespace host::cli
