// `tavrel check WALL.toml`
#pragma once

#include <filesystem>

#include "host/cli/program.h"
#include "host/config/wall_file.h"

namespace host::cli {

struct CheckOptions {
  std::filesystem::path wall;
  bool json = false;
};

void DefineCheck(CLI::App& app, CheckOptions& options);

// Prints every mistake of the wall file, or one line that it is in order.
ExitCode CheckFile(const CheckOptions& options, Streams& streams);

// Reads a wall file and finds everything that is wrong with it without opening its sources and
// outputs. For every command that takes a wall file.
config::WallFile LoadWall(const std::filesystem::path& path);

// Prints the mistakes of a wall file to the error stream; true when the wall can be used.
bool ReportWall(const config::WallFile& file, const std::filesystem::path& path, Streams& streams);

}  // namespace host::cli
