// The program `tavrel`.
#include <iostream>
#include <string>
#include <vector>

#include "host/cli/check.h"
#include "host/cli/demo.h"
#include "host/cli/probe.h"
#include "host/cli/program.h"
#include "host/cli/registry.h"
#include "host/cli/render.h"
#include "host/cli/run.h"
#include "host/cli/show_log.h"
#include "host/ffmpeg/log.h"
#include "platform/os/console.h"
#include "platform/os/heap.h"

int main(int argc, char** argv) {
  using namespace host::cli;
  constexpr int kErrors = 2;
  os::KeepLargeBlocksOutOfHeap();
  // What FFmpeg finds wrong is in our own messages.
  host::ffmpeg::RouteLog(host::ffmpeg::LogLevel::kError, {});
  Program program({std::cout, std::cerr, os::IsTerminal(kErrors), os::Console().HasColour()});
  program.Add<CheckOptions>("check", "say what is wrong with a wall file", DefineCheck, Check);
  program.Add<ProbeOptions>("probe", "say what a source carries, and what a wall does with it",
                            DefineProbe, Probe);
  program.Add<DemoOptions>("demo", "a wall of built-in channels, as fast as the machine can",
                           DefineDemo, Demo);
  program.Add<RunOptions>("run", "run a wall live", DefineRun, Run);
  program.Add<RenderOptions>("render", "make a file of a wall of files, as fast as the machine can",
                             DefineRender, Render);
  program.Add<ShowLogOptions>("log", "print a circular log file in order, or follow it",
                              DefineShowLog, ShowLog);
  program.Add<RegisterOptions>("register", "enter a filter library into the registry of filters",
                               DefineRegister, Register);
  program.Add<RegisterOptions>("unregister", "take a filter library out of it", DefineRegister,
                               Unregister);
  program.Add<PinsOptions>("pins", "list the pins of a composer", DefinePins, Pins);
  return static_cast<int>(program.Run(std::vector<std::string>(argv + 1, argv + argc)));
}
