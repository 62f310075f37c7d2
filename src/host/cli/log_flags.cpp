#include "host/cli/log_flags.h"

#include <cmath>
#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "host/cli/graph_options.h"
#include "host/config/value_text.h"

namespace host::cli {

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

}  // namespace host::cli
