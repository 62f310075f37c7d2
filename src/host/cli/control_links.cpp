#include "host/cli/control_links.h"

#include <stdexcept>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "host/control/screen_commands.h"

namespace host::cli {

ControlLinks::ControlLinks(control::WallExecutor& executor, Settings settings)
    : say_(settings.say),
      complain_(settings.complain),
      control_(settings.wall, executor,
               {settings.wallFile, std::move(settings.live), settings.say}) {
  Serve(settings.wall, settings.wallFile);
  if (!settings.wall.tally.listen.empty()) {
    tally_.emplace(settings.wall.tally, control_);
  }
  if (settings.wall.http.listen) {
    http_.emplace(
        control::http::HttpServer::Settings{settings.wall.http, std::move(settings.snapshot),
                                            std::move(settings.preview), std::move(settings.audio),
                                            std::move(settings.monitoring), settings.say},
        control_);
    say_("serves the HTTP API at " + http_->url());
  }
}

ControlLinks::~ControlLinks() {
  // Requests that wait are answered before their senders are destroyed.
  control_.Close();
}

void ControlLinks::Serve(const config::Wall& wall, const std::filesystem::path& wallFile) {
  const std::optional<std::filesystem::path>& named = wall.control.socket;
  if (named ? named->empty() : wallFile.empty()) {
    return;
  }
  try {
    socket_.emplace(named ? *named : control::UsualSocket(wallFile), control_);
  } catch (const std::runtime_error& error) {
    const std::string what =
        std::string("the wall cannot be driven through its socket: ") + error.what();
    if (named) {
      throw std::runtime_error(what);
    }
    complain_(what);
  }
}

void ControlLinks::TakeInput(const std::string& screen, const ScreenInput& input) {
  nlohmann::json command = control::CommandOf(input, *control_.state());
  if (!command.is_null()) {
    control_.Submit({std::move(command), screen, {}}, {});
  }
}

void ControlLinks::Reload() {
  const auto done = [say = say_, complain = complain_](const control::Result& result) {
    if (const auto* const error = std::get_if<control::CommandError>(&result)) {
      complain("the wall stays as it is: " + error->detail());
      return;
    }
    std::string text = "the wall file was read again";
    for (const auto& what : std::get<control::Accepted>(result).more.at("needs_restart")) {
      text += "; " + what.get<std::string>();
    }
    say(text);
  };
  control_.Submit({{{"command", "reload"}}, "signal", {}}, done);
}

void ControlLinks::RunFor(std::uint32_t milliseconds) {
  control_.waiting().Wait(milliseconds);
  control_.Run();
}

}  // namespace host::cli
