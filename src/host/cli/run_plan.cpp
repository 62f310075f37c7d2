#include <chrono>
#include <filesystem>
#include <system_error>

#include "host/cli/wall_command.h"
#include "host/config/url.h"
#include "host/config/value_text.h"
#include "host/ffmpeg/mask.h"
#include "host/ffmpeg/outputs.h"
#include "host/output/container.h"
#include "host/session/wall_check.h"
#include "platform/os/thread.h"

namespace host::cli {
namespace {

// How long the file systems of all files of a wall may take to answer.
constexpr std::chrono::seconds kFilesLimit{3};

std::string Named(const std::string& argument, const std::string& target) {
  return argument + " \"" + ffmpeg::MaskUrl(target) + "\"";
}

// The outputs that the arguments name.
void TakeArguments(const RecordOptions& record, RunPlan& plan) {
  bool formatIsUsed = false;
  for (const std::string& url : record.outputs) {
    if (config::IsScreen(url)) {
      config::Screen screen;
      const std::optional<int> display = config::DisplayOf(url);
      screen.display = display.value_or(0);
      if (!display) {
        plan.mistakes.push_back(Named("--output", url) + " " + config::kDisplayForm);
      }
      plan.screens.push_back(screen);
      continue;
    }
    config::Output output;
    output.url = config::LocalPath(url).value_or(url);
    if (!record.format.empty() &&
        (record.outputs.size() == 1 || FindContainer("", output.url) == nullptr)) {
      output.format = record.format;
      formatIsUsed = true;
    }
    for (const Finding& finding : CheckOutput(output)) {
      const bool isMistake = finding.severity == config::Diagnostic::Severity::kError;
      const std::string text = Named("--output", output.url) + " " +
                               (finding.key == "url" ? "" : "\"" + finding.key + "\" ") +
                               finding.what;
      (isMistake ? plan.mistakes : plan.remarks).push_back(text);
    }
    plan.outputs.push_back(output);
  }
  if (!record.format.empty() && !formatIsUsed) {
    plan.mistakes.push_back(Named("--format", record.format) +
                            " is used by no output: the name of each --output tells its container");
  }
}

bool Exists(const std::string& url) {
  const std::optional<std::string> path = config::LocalPath(url);
  std::error_code ignored;
  return path && std::filesystem::is_regular_file(config::ExpandFileName(*path), ignored);
}

void KeepFiles(const WallCommand& command, RunPlan& plan) {
  constexpr const char* kHowTo = " exists; name another file, or replace it with --overwrite";
  for (const config::Output& output : plan.outputs) {
    if (!output.overwrite && Exists(output.url)) {
      plan.mistakes.push_back(Named("the output", output.url) + kHowTo);
    }
  }
  if (!command.record.overwrite && Exists(command.record.snapshot.string())) {
    plan.mistakes.push_back(Named("--snapshot", command.record.snapshot.string()) + kHowTo);
  }
}

}  // namespace

RunPlan PlanRun(const WallCommand& command) {
  RunPlan plan;
  const RecordOptions& record = command.record;
  TakeArguments(record, plan);
  RunFiles files;
  files.outputsAreArguments = !record.outputs.empty();
  if (!files.outputsAreArguments) {
    plan.outputs = command.wall.outputs;
    plan.screens = command.wall.screens;
  }
  if (!command.live && !plan.screens.empty()) {
    plan.mistakes.emplace_back(
        "a screen shows a wall that runs live; use `tavrel run`, or name a file with --output");
  }
  for (config::Output& output : plan.outputs) {
    output.overwrite = output.overwrite || record.overwrite;
    plan.toStandardOutput =
        plan.toStandardOutput || ffmpeg::PipeOutput::IsStandardOutput(output.url);
  }
  if (plan.toStandardOutput && (command.json || command.events)) {
    plan.mistakes.emplace_back(
        "--json and --events write lines to the standard output, and so does an output write "
        "there; "
        "send one of them elsewhere");
  }
  files.wallFile = command.wallFile;
  files.outputs = plan.outputs;
  files.logArguments = command.graph.log;
  files.log = config::FirstOf(command.graph.log, command.wall.log);
  files.snapshot = record.snapshot;
  files.library = command.graph.library;
  using Clashes = std::vector<WallFiles::Clash>;
  const auto clashes = os::CallWithin<Clashes>(
      kFilesLimit, [wall = command.wall, files] { return FilesOf(wall, files).Clashes(); },
      "files");
  for (const WallFiles::Clash& clash : clashes.value_or(Clashes())) {
    plan.mistakes.push_back(ToText(clash, command.wallFile));
  }
  if (!clashes) {
    plan.remarks.emplace_back(
        "no answer from the file system of one of the files; whether two of them are the same is "
        "not known");
  }
  if (!command.live) {
    KeepFiles(command, plan);
  }
  return plan;
}

}  // namespace host::cli
