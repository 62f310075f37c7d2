// `tavrel log`: the lines of a circular log file.
#pragma once

#include <cstdint>
#include <filesystem>

#include "host/cli/program.h"

namespace host::cli {

struct ShowLogOptions {
  std::filesystem::path file;
  bool follow = false;
  std::int32_t level = 3;  // lines of a greater level are left out
  bool json = false;       // one object for each line
  bool salvage = false;    // all lines of a file whose header is damaged
};

void DefineShowLog(CLI::App& app, ShowLogOptions& options);

// Prints the lines in the order in which they were written; follows the file until a signal asks
// for the end. kCouldNotStart for a file that cannot be read or whose header is damaged.
ExitCode ShowLog(const ShowLogOptions& options, Streams& streams);

}  // namespace host::cli
