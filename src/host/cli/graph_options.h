// The options that several commands have.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/program.h"
#include "host/config/wall.h"

namespace CLI {
class App;
}
namespace CLI {}

namespace host::cli {

struct GraphOptions {
  std::filesystem::path library;  // of the composer; empty: beside the program
  config::LogOptions log;
};

// Where the mosaic goes.
struct RecordOptions {
  std::vector<std::string> outputs;  // files or URLs; replace those of the wall file
  std::string format;                // container of those whose names do not tell it
  bool overwrite = false;            // files that exist are replaced
  std::filesystem::path snapshot;    // a PNG file; empty: none
  std::optional<double> snapshotAt;  // seconds after the start; none: the last frame
  std::optional<double> seconds;     // length of the mosaic; none: until it ends or is stopped
};

// A check of an option: refuses what is no number of seconds, and what lies outside of the range.
// The words of the parser's own leave open what is wrong, and it takes "nan".
std::function<std::string(const std::string&)> SecondsBetween(double least, double most);

void DefineGraph(CLI::App& app, GraphOptions& options);
void DefineRecord(CLI::App& app, RecordOptions& options);
// --http ADDRESS:PORT.
void DefineHttp(CLI::App& app, std::string& address, const std::string& meaning);
// Serves at that address, unless it is empty. False when the wall does not allow it there, which
// has been reported.
bool UseHttp(const std::string& address, config::Http& http, Streams& streams);

}  // namespace host::cli
