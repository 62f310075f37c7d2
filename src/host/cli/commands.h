// The commands of `tavrel`: the options of each, and the function that runs it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/program.h"
#include "host/config/wall.h"
#include "host/config/wall_file.h"

namespace host::cli {

// Options that several commands have.

struct GraphOptions {
  std::filesystem::path library;  // of the composer; empty: beside the program
  config::LogOptions log;
};

// Where the mosaic goes.
struct RecordOptions {
  std::vector<std::string> outputs;  // files or URLs; replace those of the wall file
  std::string format;                // container of those whose names do not determine it
  bool overwrite = false;            // files that exist are replaced
  std::filesystem::path snapshot;    // a PNG file; empty: none
  std::optional<double> snapshotAt;  // seconds after the start; none: the last frame
  std::optional<double> seconds;     // length of the mosaic; none: until it ends or is stopped
};

// A check of an option: refuses a value that is no number of seconds or outside of the range. The
// parser's own check does not say what is wrong, and accepts "nan".
std::function<std::string(const std::string&)> SecondsBetween(double least, double most);

void DefineGraph(CLI::App& app, GraphOptions& options);
void DefineRecord(CLI::App& app, RecordOptions& options);
// --http ADDRESS:PORT.
void DefineHttp(CLI::App& app, std::string& address, const std::string& meaning);
// Makes http serve at that address, unless it is empty. False when that is not allowed there, which
// has been reported.
bool UseHttp(const std::string& address, config::Http& http, Streams& streams);

// `tavrel run WALL.toml` and `tavrel render WALL.toml -o FILE`

struct RunOptions {
  std::filesystem::path wall;
  GraphOptions graph;
  RecordOptions record;  // of render: at least one output or a snapshot
  bool json = false;     // the result as a line of JSON; of run, also the status
  bool events = false;   // run: changes of channels and alarms as lines of JSON
  std::string http;  // run: address of the HTTP API, in place of the wall file's; empty: that one
  std::optional<std::filesystem::path> socket;  // run: instead of the wall file's; empty: none
  bool strict = false;  // render: kCouldNotStart when a channel was not shown to its end
};

void DefineRun(CLI::App& app, RunOptions& options);
void DefineRender(CLI::App& app, RunOptions& options);

// Runs a wall live, paced by the clock, until stopped or for the given time.
ExitCode Run(const RunOptions& options, Streams& streams);
// Renders a wall of files as fast as the machine can; the same files give the same frames.
ExitCode Render(const RunOptions& options, Streams& streams);

// `tavrel demo`

struct DemoOptions {
  GraphOptions graph;
  RecordOptions record;  // by default ten seconds; live until stopped
  int channels = 9;
  int width = 1920;
  int height = 1080;
  std::string frameRate = "25";
  std::string http;  // address of the operator's page; empty: rendered, not live
  bool json = false;
};

void DefineDemo(CLI::App& app, DemoOptions& options);

// A wall of built-in channels, rendered as fast as the machine can, or live with the page.
ExitCode Demo(const DemoOptions& options, Streams& streams);

// `tavrel check WALL.toml`

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

// `tavrel probe SOURCE`

struct ProbeOptions {
  std::string source;
  std::string frameRate = "25";  // of the canvas that the source would be shown on
  std::string program;           // number or service name; empty: none
  double limit = 10;             // seconds for opening
  bool json = false;
};

void DefineProbe(CLI::App& app, ProbeOptions& options);

// Opens the source, decodes its beginning, and prints what it carries and how a wall handles it.
ExitCode Probe(const ProbeOptions& options, Streams& streams);

// `tavrel ctl COMMAND`: queries or controls a running wall through its local socket.

struct CtlOptions {
  struct Request;                // of the arguments
  std::filesystem::path socket;  // of the wall; empty: that of the wall file, or the only one
  std::filesystem::path wall;    // its wall file
  bool json = false;             // prints the wall's answers unchanged
  double timeout = 10;           // seconds that an answer may take
  std::shared_ptr<Request> request;
};

void DefineCtl(CLI::App& app, CtlOptions& options);

// kDone when the wall has done it, kRefused when it refused, kNoWall when none answers. The answer,
// or the events, go to the output; why something was refused to the error stream.
ExitCode Ctl(const CtlOptions& options, Streams& streams);

// `tavrel log FILE`: the lines of a circular log file.

struct ShowLogOptions {
  std::filesystem::path file;
  bool follow = false;
  std::int32_t level = 3;  // lines of a greater level are left out
  bool json = false;       // one object for each line
  bool salvage = false;    // all lines of a file whose header is damaged
};

void DefineShowLog(CLI::App& app, ShowLogOptions& options);

// Prints the lines in the order in which they were written; follows the file until a signal ends
// it. kCouldNotStart for a file that cannot be read or whose header is damaged.
ExitCode ShowLog(const ShowLogOptions& options, Streams& streams);

// `tavrel register FILE`, `tavrel unregister FILE` and `tavrel pins`

struct RegisterOptions {
  std::filesystem::path library;
};

void DefineRegister(CLI::App& app, RegisterOptions& options);

// Call the library's own entry points.
ExitCode Register(const RegisterOptions& options, Streams& streams);
ExitCode Unregister(const RegisterOptions& options, Streams& streams);

struct PinsOptions {
  GraphOptions graph;
  int inputs = 1;
  bool json = false;
};

void DefinePins(CLI::App& app, PinsOptions& options);

// Prints the pins of a composer with that number of inputs.
ExitCode Pins(const PinsOptions& options, Streams& streams);

}  // namespace host::cli
