// `tavrel check WALL.toml`
#pragma once

#include <filesystem>

#include "host/cli/program.h"
#include "host/wall/wall_reader.h"

namespace host::cli {

struct CheckOptions {
  std::filesystem::path wall;
  bool json = false;
};

void DefineCheck(CLI::App& app, CheckOptions& options);

// Prints every mistake of the wall file, or one line that it is in order.
ExitCode Check(const CheckOptions& options, Streams& streams);

// Prints the mistakes of a wall file to the error stream; true when the wall can be used. For every
// command that takes a wall file.
bool ReportWall(const wall::WallFile& file, const std::filesystem::path& path, Streams& streams);

}  // namespace host::cli
