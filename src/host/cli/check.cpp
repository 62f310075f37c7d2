#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/cli/commands.h"
#include "host/config/value_text.h"
#include "host/control/command.h"
#include "host/control/saved_wall.h"
#include "host/control/wall_state.h"
#include "host/session/wall_check.h"

namespace host::cli {

namespace {

// The severity in red, yellow or cyan, the rest as it is.
std::string Coloured(const config::Diagnostic& diagnostic, std::string line) {
  using Severity = config::Diagnostic::Severity;
  const std::string word = std::string(NameOf(diagnostic.severity)) + ":";
  const char* const colour = diagnostic.severity == Severity::kError     ? "\x1b[1;31m"
                             : diagnostic.severity == Severity::kWarning ? "\x1b[1;33m"
                                                                         : "\x1b[1;36m";
  const std::size_t at = line.find(" " + word);
  return at == std::string::npos ? line
                                 : line.replace(at + 1, word.size(), colour + word + "\x1b[0m");
}

void PrintJson(const config::WallFile& file, const std::string& path, std::ostream& out) {
  nlohmann::ordered_json report;
  report["file"] = path;
  report["ok"] = file.usable();
  report["diagnostics"] = nlohmann::ordered_json::array();
  for (const config::Diagnostic& diagnostic : file.diagnostics.all()) {
    report["diagnostics"].push_back({{"line", diagnostic.position.line},
                                     {"column", diagnostic.position.column},
                                     {"severity", NameOf(diagnostic.severity)},
                                     {"message", diagnostic.message}});
  }
  if (file.usable()) {
    const config::Canvas& canvas = file.wall.canvas;
    report["canvas"] = {{"width", canvas.width},
                        {"height", canvas.height},
                        {"frame_rate", config::TextOf(canvas.frameRate)}};
    report["channels"] = nlohmann::ordered_json::array();
    for (const config::Channel& channel : file.wall.channels) {
      const config::Window& window = channel.window;
      report["channels"].push_back(
          {{"name", channel.name}, {"window", {window.x, window.y, window.width, window.height}}});
    }
  }
  // A file may hold bytes that are not UTF-8; they are shown as replacement characters.
  out << report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
}

// The layout in which a wall begins may be one of the layout book beside its file.
void CheckLayout(config::WallFile& file, const std::filesystem::path& path) {
  const auto place = file.wall.canvas.places.find("layout");
  if (!file.usable() || place == file.wall.canvas.places.end()) {
    return;
  }
  control::WallState state = control::WallState::Of(file.wall);
  const control::LayoutBook book(path);
  try {
    state.layouts.merge(book.Read(file.wall.canvas));
  } catch (const control::CommandError&) {
    // Reported when the wall starts.
  }
  const std::vector<std::string> known = state.LayoutNames();
  if (std::find(known.begin(), known.end(), file.wall.layout) == known.end()) {
    const auto nearest = config::NearestName(file.wall.layout, known);
    file.diagnostics.Warning(place->second, "there is no layout \"" + file.wall.layout + "\"" +
                                                (nearest ? "; did you mean \"" + *nearest + "\"?"
                                                         : ", nor in " + book.file().string()));
    file.diagnostics.Sort();
  }
}

}  // namespace

void DefineCheck(CLI::App& app, CheckOptions& options) {
  app.add_option("WALL", options.wall, "the wall file")->required();
  app.add_flag("--json", options.json, "print the result as JSON")->envname("TAVREL_JSON");
}

config::WallFile LoadWall(const std::filesystem::path& path) {
  config::WallFile file = config::ReadWall(path);
  CheckWall(file, path);
  CheckLayout(file, path);
  return file;
}

bool ReportWall(const config::WallFile& file, const std::filesystem::path& path, Streams& streams) {
  for (const config::Diagnostic& diagnostic : file.diagnostics.all()) {
    const std::string line = config::ToText(diagnostic, path.string());
    streams.err << (streams.colour ? Coloured(diagnostic, line) : line) << "\n";
  }
  return file.usable();
}

ExitCode CheckFile(const CheckOptions& options, Streams& streams) {
  config::WallFile file = LoadWall(options.wall);
  CheckEncoders(file);
  if (options.json) {
    PrintJson(file, options.wall.string(), streams.out);
  } else if (ReportWall(file, options.wall, streams)) {
    const config::Canvas& canvas = file.wall.canvas;
    const std::size_t channels = file.wall.channels.size();
    streams.out << options.wall.string() << ": OK, " << channels
                << (channels == 1 ? " channel on " : " channels on ") << canvas.width << "x"
                << canvas.height << " at " << config::TextOf(canvas.frameRate)
                << " frames per second\n";
  }
  return file.usable() ? ExitCode::kDone : ExitCode::kBadWall;
}

}  // namespace host::cli
