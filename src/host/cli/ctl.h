// `tavrel ctl COMMAND`: asks a running wall for something, through its local socket.
#pragma once

#include <filesystem>
#include <memory>

#include "host/cli/program.h"

namespace host::cli {

struct CtlOptions {
  struct Request;                // what the arguments ask for
  std::filesystem::path socket;  // of the wall; empty: that of the wall file, or the only one
  std::filesystem::path wall;    // its wall file
  bool json = false;             // answers as the wall gives them
  double timeout = 10;           // seconds that an answer may take
  std::shared_ptr<Request> request;
};

void DefineCtl(CLI::App& app, CtlOptions& options);

// kDone when the wall has done it, kRefused when it refused, kNoWall when none answers. The answer,
// or the events, go to the output; why something was refused to the error stream.
ExitCode Ctl(const CtlOptions& options, Streams& streams);

}  // namespace host::cli
