#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>

#include "host/cli/commands.h"
#include "host/config/value_text.h"

namespace host::cli {

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
    // A value that is no number is in no range.
    if (isNumber && seconds >= least && seconds <= most) {
      return {};
    }
    return "must be seconds, from " + Plain(least) + " to " + Plain(most) + ", not " + text;
  };
}

namespace {

void DefineLog(CLI::App& app, config::LogOptions& options) {
  constexpr const char* kGroup = "Log";
  app.add_flag_callback(
         "-v,--verbose", [&options] { options.level = config::kHighestLogLevel; },
         "the same as --log-level 3")
      ->envname("TAVREL_VERBOSE")
      ->group(kGroup);
  app.add_option("--log-level", options.level,
                 "0 errors, 1 warnings as well, 2 information, 3 everything "
                 "[0 on the screen, 1 elsewhere]")
      ->envname("TAVREL_LOG_LEVEL")
      ->check(CLI::Range(0, config::kHighestLogLevel))
      ->group(kGroup);
  app.add_option("--log-file", options.file, "keep the messages in a circular file")
      ->envname("TAVREL_LOG_FILE")
      ->group(kGroup);
  app.add_option_function<std::string>(
         "--log-size",
         [&options](const std::string& text) {
           options.size = config::ParseByteSize(text);
           if (!options.size) {
             throw CLI::ValidationError("--log-size", config::kByteSizeForm);
           }
         },
         "bytes of each circular file, 64K or 10M, 0 for no limit [10M]")
      ->envname("TAVREL_LOG_SIZE")
      ->group(kGroup);
  app.add_option_function<std::string>(
         "--syslog",
         [&options](const std::string& text) {
           options.syslog = config::ParseEndpoint(text);
           if (!options.syslog) {
             throw CLI::ValidationError("--syslog", config::kEndpointForm);
           }
         },
         "send the messages to a syslog server, HOST:PORT")
      ->envname("TAVREL_SYSLOG")
      ->group(kGroup);
  app.add_option("--perf-file", options.perfFile, "keep performance records in a circular file")
      ->envname("TAVREL_PERF_FILE")
      ->group(kGroup);
  app.add_option_function<double>(
         "--perf-period",
         [&options](const double& seconds) {
           options.perfPeriod = static_cast<Time>(std::llround(seconds * kSecond));
         },
         "seconds between two performance records [10]")
      ->envname("TAVREL_PERF_PERIOD")
      ->check(SecondsBetween(static_cast<double>(config::kMinPerfPeriod) / kSecond,
                             static_cast<double>(config::kMaxPerfPeriod) / kSecond))
      ->group(kGroup);
}

}  // namespace

void DefineGraph(CLI::App& app, GraphOptions& options) {
  app.add_option("--library", options.library, "the composer's filter library")
      ->envname("TAVREL_LIBRARY");
  DefineLog(app, options.log);
}

void DefineRecord(CLI::App& app, RecordOptions& options) {
  app.add_option(
         "-o,--output", options.outputs,
         "write the mosaic to a file, a URL, - for the standard output, or show it on a screen: "
         "(screen:1, ...); may be repeated")
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

void DefineHttp(CLI::App& app, std::string& address, const std::string& meaning) {
  app.add_option("--http", address, meaning)
      ->envname("TAVREL_HTTP")
      ->check([](const std::string& text) -> std::string {
        return config::ParseListenAddress(text) ? "" : config::kListenForm;
      });
}

bool UseHttp(const std::string& address, config::Http& http, Streams& streams) {
  if (address.empty()) {
    return true;
  }
  http.listen = config::ParseListenAddress(address);
  const auto mistake = config::HttpMistake(http);
  if (mistake) {
    streams.err << "tavrel: --http " << address << " " << mistake->second << "\n";
  }
  return !mistake;
}

}  // namespace host::cli
