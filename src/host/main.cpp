// The program `tavrel`.
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "host/cli/commands.h"
#include "host/cli/program.h"
#include "host/ffmpeg/error.h"
#include "host/output/screen/screen_protocol.h"
#include "host/output/screen/window/screen_window.h"
#include "platform/os/console.h"
#include "platform/os/process.h"
#include "platform/os/thread.h"

int main(int argc, char** argv) {
  using namespace host::cli;
  if (argc == 2 && std::string_view(argv[1]) == host::kScreenWindowCommand) {
    return host::ShowScreenWindow();
  }
  constexpr int kOutput = 1;
  constexpr int kErrors = 2;
  os::KeepLargeBlocksOutOfHeap();
  // FFmpeg's errors are reported in our own messages.
  host::ffmpeg::RouteLog(host::ffmpeg::LogLevel::kError, {});
  os::StandardStream output(kOutput);
  os::StandardStream errors(kErrors);
  std::ostream out(&output);
  std::ostream err(&errors);
  err.setf(std::ios::unitbuf);
  Program program({out, err, os::IsTerminal(kErrors), os::Console().HasColour()});
  program.Add<CheckOptions>("check", "say what is wrong with a wall file", DefineCheck, CheckFile);
  program.Add<ProbeOptions>("probe", "say what a source carries, and what a wall does with it",
                            DefineProbe, Probe);
  program.Add<DemoOptions>(
      "demo", "a wall of built-in channels, as fast as the machine can, or live", DefineDemo, Demo);
  program.Add<RunOptions>("run", "run a wall live", DefineRun, Run);
  program.Add<RunOptions>("render", "make a file of a wall of files, as fast as the machine can",
                          DefineRender, Render);
  program.Add<CtlOptions>("ctl", "drive a running wall", DefineCtl, Ctl);
  program.Add<ShowLogOptions>("log", "print a circular log file in order, or follow it",
                              DefineShowLog, ShowLog);
  program.Add<RegisterOptions>("register", "enter a filter library into the registry of filters",
                               DefineRegister, Register);
  program.Add<RegisterOptions>("unregister", "take a filter library out of it", DefineRegister,
                               Unregister);
  program.Add<PinsOptions>("pins", "list the pins of a composer", DefinePins, Pins);
  const int code = static_cast<int>(program.Run(std::vector<std::string>(argv + 1, argv + argc)));
  out.flush();
  if (os::Thread::Running() > 0) {
    // Threads that are stuck in a dead mount or in the resolution of a name were detached. They may
    // wake at any time, and would use objects that a regular exit destroys.
    std::_Exit(code);
  }
  return code;
}
