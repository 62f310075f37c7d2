#include "host/cli/program.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <ostream>

#include <CLI/CLI.hpp>

#include "host/config/diagnostics.h"
#include "host/ffmpeg/mask.h"

namespace host::cli {

namespace {

// A suggestion for an unknown argument.
std::string Suggestion(const std::string& written, const std::vector<std::string>& known) {
  const auto nearest = config::NearestName(written, known);
  return nearest ? "; did you mean \"" + *nearest + "\"?" : "";
}

std::vector<std::string> OptionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return names;
}

// The parser takes "-1" for an option: joined with the option before it, it is a value, which can
// be checked and refused.
std::vector<std::string> WithNegativeNumbers(const std::vector<std::string>& arguments) {
  std::vector<std::string> joined;
  for (const std::string& argument : arguments) {
    const bool isNegative =
        argument.size() > 1 && argument[0] == '-' &&
        (std::isdigit(static_cast<unsigned char>(argument[1])) != 0 || argument[1] == '.');
    if (isNegative && !joined.empty() && joined.back().starts_with("--") &&
        joined.back().find('=') == std::string::npos) {
      joined.back() += "=" + argument;
    } else {
      joined.push_back(argument);
    }
  }
  return joined;
}

}  // namespace

Program::Program(Streams streams)
    : streams_(streams),
      app_(std::make_unique<CLI::App>("Composes many live channels into one picture.", "tavrel")) {
  app_->require_subcommand(1);
  app_->set_version_flag("--version", "tavrel " TAVREL_VERSION, "print the version");
  app_->get_formatter()->column_width(34);
  app_->footer(
      "Exit codes: 0 done, 64 wrong arguments, 75 could not start, 78 mistakes in the wall file; "
      "of "
      "ctl also 1 refused, 69 no wall answers.");
}

Program::~Program() = default;

CLI::App& Program::AddCommand(const std::string& name, const std::string& description,
                              std::function<ExitCode(Streams&)> run) {
  CLI::App* const app = app_->add_subcommand(name, description);
  commands_.push_back({app, std::move(run)});
  return *app;
}

ExitCode Program::UsageError(const std::string& message) {
  streams_.err << "tavrel: " << message << "\nSee `tavrel --help`.\n";
  return ExitCode::kUsage;
}

ExitCode Program::Run(const std::vector<std::string>& arguments) {
  std::vector<std::string> names;
  for (const Command& command : commands_) {
    names.push_back(command.app->get_name());
  }
  if (arguments.empty()) {
    streams_.err << app_->help();
    return ExitCode::kUsage;
  }
  if (arguments[0] == "help") {
    std::vector<std::string> asked(arguments.begin() + 1, arguments.end());
    asked.emplace_back("--help");
    return Run(asked);
  }
  if (!arguments[0].starts_with('-') &&
      std::find(names.begin(), names.end(), arguments[0]) == names.end()) {
    return UsageError("there is no command \"" + arguments[0] + "\"" +
                      Suggestion(arguments[0], names));
  }
  try {
    std::vector<std::string> joined = WithNegativeNumbers(arguments);
    std::reverse(joined.begin(), joined.end());
    app_->parse(std::move(joined));
  } catch (const CLI::CallForHelp&) {
    std::string words = "tavrel";
    const CLI::App* asked = app_.get();
    for (auto parsed = asked->get_subcommands(); !parsed.empty();
         parsed = asked->get_subcommands()) {
      words += asked == app_.get() ? "" : " " + asked->get_name();
      asked = parsed[0];
    }
    streams_.out << (asked == app_.get() ? app_->help() : asked->help(words));
    return ExitCode::kDone;
  } catch (const CLI::CallForVersion& version) {
    streams_.out << version.what() << "\n";
    return ExitCode::kDone;
  } catch (const CLI::ExtrasError& error) {
    const auto parsed = app_->get_subcommands();
    const auto extras = app_->remaining(true);
    if (parsed.empty() || extras.empty()) {
      return UsageError(error.what());
    }
    return UsageError("`tavrel " + parsed[0]->get_name() + "` knows no \"" +
                      ffmpeg::MaskUrl(extras[0]) + "\"" +
                      Suggestion(extras[0], OptionNames(*parsed[0])));
  } catch (const CLI::RequiredError& error) {
    const auto parsed = app_->get_subcommands();
    const auto extras = app_->remaining(true);
    if (!parsed.empty() && !extras.empty() && parsed[0]->get_require_subcommand_min() > 0) {
      std::vector<std::string> known;
      for (const CLI::App* command : parsed[0]->get_subcommands([](CLI::App*) { return true; })) {
        known.push_back(command->get_name());
      }
      return UsageError("`tavrel " + parsed[0]->get_name() + "` has no command \"" + extras[0] +
                        "\"" + Suggestion(extras[0], known));
    }
    return UsageError(ffmpeg::MaskCredentials(error.what()));
  } catch (const CLI::ParseError& error) {
    return UsageError(ffmpeg::MaskCredentials(error.what()));
  }
  const auto parsed = std::find_if(commands_.begin(), commands_.end(),
                                   [](const Command& command) { return command.app->parsed(); });
  try {
    return parsed->run(streams_);
  } catch (const std::exception& error) {
    streams_.err << "tavrel: " << ffmpeg::MaskCredentials(error.what()) << "\n";
    return ExitCode::kCouldNotStart;
  }
}

}  // namespace host::cli
