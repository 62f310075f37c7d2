// The frame around the commands of `tavrel`.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace host::cli {

enum class ExitCode {
  kDone = 0,
  kRefused = 1,         // a running wall has refused the request
  kUsage = 64,          // the arguments are wrong
  kNoWall = 69,         // no running wall answers
  kCouldNotStart = 75,  // a source, an output or the filter library cannot be used
  kBadWall = 78,        // the wall file has mistakes
};

// Where a command prints. Results go to out, everything for people to err.
struct Streams {
  std::ostream& out;
  std::ostream& err;
  bool progress = false;  // err is a terminal: a progress line may be shown
  bool colour = false;    // err takes colours
};

// Parses the arguments and runs the command that they name. A value is taken from the arguments,
// otherwise from the environment (each option names its variable, TAVREL_...), otherwise it is the
// command's default. An exception of a command is printed and ends with kCouldNotStart.
class Program {
 public:
  explicit Program(Streams streams);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // define adds the command's options to its CLI::App, bound to the fields of the options struct.
  template <typename Options>
  void Add(const std::string& name, const std::string& description,
           const std::function<void(CLI::App&, Options&)>& define,
           std::function<ExitCode(const Options&, Streams&)> run) {
    auto options = std::make_shared<Options>();
    define(AddCommand(name, description,
                      [options, run = std::move(run)](Streams& streams) {
                        return run(*options, streams);
                      }),
           *options);
  }

  // Without the program's own name.
  ExitCode Run(const std::vector<std::string>& arguments);

 private:
  struct Command {
    CLI::App* app = nullptr;  // owned by app_
    std::function<ExitCode(Streams&)> run;
  };

  CLI::App& AddCommand(const std::string& name, const std::string& description,
                       std::function<ExitCode(Streams&)> run);
  ExitCode UsageError(const std::string& message);

  Streams streams_;
  std::unique_ptr<CLI::App> app_;
  std::vector<Command> commands_;
};

}  // namespace host::cli
