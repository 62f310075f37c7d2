// The program `tavrel`.
#include <iostream>
#include <string>
#include <vector>

#include "host/cli/check.h"
#include "host/cli/probe.h"
#include "host/cli/program.h"
#include "host/ffmpeg/log.h"
#include "platform/os/console.h"

int main(int argc, char** argv) {
  using namespace host::cli;
  constexpr int kErrors = 2;
  // What FFmpeg finds wrong is in our own messages.
  host::ffmpeg::RouteLog(host::ffmpeg::LogLevel::kError, {});
  Program program({std::cout, std::cerr, os::IsTerminal(kErrors), os::Console().HasColour()});
  program.Add<CheckOptions>("check", "say what is wrong with a wall file", DefineCheck, Check);
  program.Add<ProbeOptions>("probe", "say what a source carries, and what a wall does with it",
                            DefineProbe, Probe);
  return static_cast<int>(program.Run(std::vector<std::string>(argv + 1, argv + argc)));
}
