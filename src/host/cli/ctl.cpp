#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/cli/commands.h"
#include "host/control/command.h"
#include "host/control/event_feed.h"
#include "host/control/socket_server.h"
#include "platform/os/sockets.h"

namespace host::cli {

namespace {

using Json = nlohmann::ordered_json;
using Field = control::CommandField;

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): moving a JSON value throws nothing
struct CtlOptions::Request {
  enum class Show { kResult, kStatus, kList, kHealth, kWatch };

  Json command;  // null: asks for the state of the wall
  Show show = Show::kResult;
  std::vector<std::string> keys;  // KEY=VALUE
  bool hasKeys = false;
};

namespace {

using Request = CtlOptions::Request;

// There is no wall to talk to.
struct NoWall : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Words of the command line that differ from the names of the commands.
struct Word {
  const char* word;
  const char* command;
};
constexpr std::array<Word, 3> kWords{
    {{"ack", "acknowledge"}, {"solo-off", "solo_off"}, {"save-layout", "save_layout"}}};
constexpr const char* kDeleteLayout = "delete_layout";

std::string WordOf(const std::string& command) {
  for (const Word& word : kWords) {
    if (command == word.command) {
      return word.word;
    }
  }
  return command == kDeleteLayout ? "delete-layout" : command;
}

// A number, true, false, a list or an object in JSON; everything else is a text.
Json ValueOf(const std::string& text) {
  Json value = Json::parse(text, nullptr, false);
  return value.is_discarded() || value.is_null() ? Json(text) : value;
}

// Required fields become positional arguments in their order, the others options.
void DefineField(CLI::App& app, const Field& field, const std::shared_ptr<Request>& request) {
  const std::string key = field.name;
  const std::string meaning = field.meaning;
  std::string option = "--" + key;
  std::replace(option.begin(), option.end(), '_', '-');
  const std::string name = field.isRequired || field.type == Field::Type::kChannel ? key : option;
  CLI::Option* added = nullptr;
  switch (field.type) {
    case Field::Type::kBoolean:
      added = app.add_flag_callback(
          option, [request, key] { request->command[key] = true; }, meaning);
      break;
    case Field::Type::kNumber:
      added = app.add_option_function<double>(
          name, [request, key](const double& value) { request->command[key] = value; }, meaning);
      break;
    case Field::Type::kTexts:
      added = app.add_option_function<std::vector<std::string>>(
          name,
          [request, key](const std::vector<std::string>& value) { request->command[key] = value; },
          meaning);
      break;
    default:
      added = app.add_option_function<std::string>(
          name, [request, key](const std::string& value) { request->command[key] = value; },
          meaning);
      break;
  }
  added->required(field.isRequired);
}

void DefineCommand(CLI::App& app, const control::CommandKind& kind,
                   const std::shared_ptr<Request>& request) {
  const std::string name = kind.name;
  CLI::App* const command = app.add_subcommand(WordOf(name), kind.meaning);
  command->callback([request, name] { request->command["command"] = name; });
  for (const Field& field : kind.fields) {
    DefineField(*command, field, request);
  }
  if (kind.takesChannelKeys) {
    request->hasKeys = true;
    command->add_option("keys", request->keys,
                        "KEY=VALUE of a channel, as in a wall file, such as label=\"Cam 1\"");
  }
}

void DefineAsking(CLI::App& app, const char* name, const char* meaning, Request::Show show,
                  const std::shared_ptr<Request>& request) {
  app.add_subcommand(name, meaning)->callback([request, show] { request->show = show; });
}

// Short for `set CHANNEL label=TEXT`.
void DefineLabel(CLI::App& app, const std::shared_ptr<Request>& request) {
  CLI::App* const label = app.add_subcommand("label", "Changes a channel's label.");
  label->callback([request] { request->command["command"] = "set"; });
  for (const char* const key : {"channel", "label"}) {
    label
        ->add_option_function<std::string>(
            key, [request, key](const std::string& text) { request->command[key] = text; },
            key == std::string("label") ? "Its text; \"\" for none." : "Name of a channel.")
        ->required();
  }
}

// The socket of the options, that of the wall file, otherwise the only one that there is.
std::filesystem::path SocketOf(const CtlOptions& options) {
  if (!options.socket.empty()) {
    return options.socket;
  }
  if (!options.wall.empty()) {
    return control::UsualSocket(options.wall);
  }
  const std::filesystem::path folder = control::UsualSocket("wall.toml").parent_path();
  std::vector<std::filesystem::path> sockets;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    if (entry.path().extension() == ".sock") {
      sockets.push_back(entry.path());
    }
  }
  if (sockets.size() != 1) {
    throw NoWall(sockets.empty()
                     ? "no wall is running: there is no socket in " + folder.string() +
                           "; name one with --socket or --wall"
                     : "several walls may be running; name one with --socket or --wall");
  }
  return sockets.front();
}

// Lines to and from a wall.
class Connection {
 public:
  explicit Connection(const std::filesystem::path& path) : socket_(Connect(path)) {}

  void Send(const std::string& line) {
    for (std::size_t sent = 0; sent < line.size();) {
      const auto count = socket_.Send(std::string_view(line).substr(sent));
      if (!count) {
        throw NoWall("the wall has ended");
      }
      sent += *count;
      if (*count == 0) {
        std::array<os::SocketPoll::Item, 1> item{{{&socket_, false, true}}};
        poll_.Wait(item, std::chrono::milliseconds(1000));
      }
    }
  }

  // limit: none: for as long as it takes.
  Json Receive(std::optional<std::chrono::milliseconds> limit) {
    const auto end =
        std::chrono::steady_clock::now() + limit.value_or(std::chrono::milliseconds(0));
    for (;;) {
      if (const std::size_t at = received_.find('\n'); at != std::string::npos) {
        Json line = Json::parse(received_.substr(0, at), nullptr, false);
        received_.erase(0, at + 1);
        return line;
      }
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (limit && left.count() <= 0) {
        throw NoWall("the wall does not answer in time");
      }
      std::array<os::SocketPoll::Item, 1> item{{{&socket_}}};
      poll_.Wait(item, limit ? left : std::chrono::milliseconds(-1));
      std::array<char, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
      const auto count = socket_.Receive(buffer);
      if (count == 0) {
        throw NoWall("the wall has ended");
      }
      received_.append(buffer.data(), count.value_or(0));
    }
  }

 private:
  static os::Socket Connect(const std::filesystem::path& path) {
    try {
      return os::Socket::ConnectLocal(path);
    } catch (const std::system_error& error) {
      throw NoWall("no wall answers at " + path.string() + ": " + error.code().message());
    }
  }

  os::Socket socket_;
  os::SocketPoll poll_;
  std::string received_;
};

std::string TextOf(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.is_null() ? "none" : value.dump();
}

void PrintChannel(const Json& channel, std::ostream& out) {
  const Json live = channel.value("live", Json::object());
  out << TextOf(channel["name"]) << ": " << TextOf(live.value("state", Json("not known")));
  if (live.contains("reason")) {
    out << " (" << TextOf(live["reason"]) << ")";
  }
  const auto say = [&](bool is, const std::string& what) { out << (is ? ", " + what : ""); };
  say(!channel.value("shown", true), "not shown");
  say(channel.value("selected", false), "selected");
  say(channel.value("mute", "off") != "off", "muted");
  say(channel.contains("masked_until"), "alarms masked until " + channel.value("masked_until", ""));
  const Json alarms = live.value("alarms", Json::array());
  for (const Json& alarm : alarms) {
    const bool isKnown = channel["acknowledged"].contains(TextOf(alarm));
    say(true, "alarm " + TextOf(alarm) + (isKnown ? " (acknowledged)" : ""));
  }
  out << "\n";
}

// Alarms that nobody has acknowledged or masked, and channels without frames.
std::vector<std::string> Troubles(const Json& wall) {
  std::vector<std::string> troubles;
  for (const Json& channel : wall["channels"]) {
    const Json live = channel.value("live", Json::object());
    const std::string name = TextOf(channel["name"]);
    if (live.contains("state") && live["state"] != "live") {
      troubles.push_back(name + ": " + TextOf(live["state"]));
    }
    for (const Json& alarm : live.value("alarms", Json::array())) {
      if (!channel.contains("masked_until") && !channel["acknowledged"].contains(TextOf(alarm))) {
        troubles.push_back(name + ": alarm " + TextOf(alarm));
      }
    }
  }
  return troubles;
}

void PrintStatus(const Json& wall, std::ostream& out) {
  const Json& canvas = wall["canvas"];
  out << canvas["width"] << "x" << canvas["height"] << " at " << canvas["frame_rate"]
      << " frames per second, layout " << TextOf(wall["layout"]);
  if (!wall["solo"].is_null()) {
    out << ", " << TextOf(wall["solo"]) << " alone";
  }
  out << ", " << wall["channels"].size() << " channels, " << wall["spare"] << " spare, version "
      << wall["version"] << "\n";
}

ExitCode PrintWall(const Json& wall, Request::Show show, std::ostream& out) {
  if (show == Request::Show::kHealth) {
    const std::vector<std::string> troubles = Troubles(wall);
    for (const std::string& trouble : troubles) {
      out << trouble << "\n";
    }
    out << (troubles.empty() ? "ok\n" : "");
    return troubles.empty() ? ExitCode::kDone : ExitCode::kRefused;
  }
  if (show == Request::Show::kStatus) {
    PrintStatus(wall, out);
  }
  for (const Json& channel : wall["channels"]) {
    if (show == Request::Show::kStatus) {
      PrintChannel(channel, out);
    } else {
      out << TextOf(channel["name"]) << "\t" << TextOf(channel["source"]) << "\n";
    }
  }
  return ExitCode::kDone;
}

void PrintResult(const Json& answer, std::ostream& out) {
  const Json more = answer.value("more", Json::object());
  if (more.contains("saved")) {
    out << "saved to " << TextOf(more["saved"]) << "\n";
  }
  for (const Json& channel : more.value("changed", Json::array())) {
    out << "changed: " << TextOf(channel) << "\n";
  }
  for (const Json& what : more.value("needs_restart", Json::array())) {
    out << TextOf(what) << "\n";
  }
  if (answer.value("changed", false)) {
    out << "done with frame " << answer["frame"] << "\n";
  } else if (!more.contains("saved")) {
    out << "nothing has changed\n";
  }
}

ExitCode Watch(Connection& connection, bool json, Streams& streams) {
  for (;;) {
    const Json line = connection.Receive({});
    if (line.contains("dropped")) {
      streams.err << "tavrel: events came faster than they were read\n";
      return ExitCode::kNoWall;
    }
    streams.out << control::OneLine(json ? line : line.value("event", Json())) << std::endl;
    if (!streams.out) {
      return ExitCode::kDone;  // the reader has closed the output
    }
  }
}

ExitCode Converse(const CtlOptions& options, Streams& streams) {
  const Request& request = *options.request;
  Json asked;
  if (!request.command.is_null()) {
    Json command = request.command;
    for (const std::string& text : request.keys) {
      const std::size_t equals = text.find('=');
      if (equals == 0 || equals == std::string::npos) {
        streams.err << "tavrel: must be KEY=VALUE, not \"" << text << "\"\n";
        return ExitCode::kUsage;
      }
      // "alarm.freeze=false" is a key of a table in a table.
      std::string key = text.substr(0, equals);
      std::replace(key.begin(), key.end(), '.', '/');
      command[Json::json_pointer("/" + key)] = ValueOf(text.substr(equals + 1));
    }
    asked = {{"commands", std::move(command)}};
  } else if (request.show == Request::Show::kWatch) {
    asked = {{"watch", true}};
  } else {
    asked = {{"get", "wall"}};
  }
  Connection connection(SocketOf(options));
  connection.Send(control::OneLine(asked) + "\n");
  const Json answer = connection.Receive(
      std::chrono::milliseconds(static_cast<std::int64_t>(options.timeout * 1000)));
  const bool isGood = answer.is_object() && answer.value("ok", false);
  if (options.json) {
    streams.out << control::OneLine(answer) << std::endl;
  }
  if (!isGood) {
    const Json error = answer.is_object() ? answer.value("error", Json::object()) : Json::object();
    streams.err << "tavrel: " << error.value("detail", "the wall's answer makes no sense") << "\n";
    return ExitCode::kRefused;
  }
  if (request.show == Request::Show::kWatch) {
    return Watch(connection, options.json, streams);
  }
  if (request.show == Request::Show::kHealth && options.json) {
    return Troubles(answer["wall"]).empty() ? ExitCode::kDone : ExitCode::kRefused;
  }
  if (answer.contains("wall") && !options.json) {
    return PrintWall(answer["wall"], request.show, streams.out);
  }
  if (!options.json) {
    PrintResult(answer, streams.out);
  }
  return ExitCode::kDone;
}

}  // namespace

void DefineCtl(CLI::App& app, CtlOptions& options) {
  options.request = std::make_shared<Request>();
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--socket", options.socket, "the socket of the wall")->envname("TAVREL_SOCKET");
  app.add_option("--wall", options.wall, "the wall file of the wall [the only one that runs]")
      ->envname("TAVREL_WALL");
  app.add_flag("--json", options.json, "print the answer as JSON")->envname("TAVREL_JSON");
  app.add_option("--timeout", options.timeout, "seconds that the answer may take [10]")
      ->check(CLI::Range(0.001, 3600.0));
  app.footer(
      "Exit codes: 0 done, 1 refused (health: something is wrong), 64 wrong arguments, 69 no wall "
      "answers.");
  using Show = Request::Show;
  DefineAsking(app, "status", "Says what the wall and its channels do.", Show::kStatus,
               options.request);
  DefineAsking(app, "list", "Lists the channels and their sources.", Show::kList, options.request);
  DefineAsking(app, "health", "Says what is wrong.", Show::kHealth, options.request);
  DefineAsking(app, "watch", "Prints what happens, a line of JSON each.", Show::kWatch,
               options.request);
  DefineLabel(app, options.request);
  for (const control::CommandKind& kind : control::CommandKinds()) {
    DefineCommand(app, kind, options.request);
  }
}

ExitCode Ctl(const CtlOptions& options, Streams& streams) {
  try {
    return Converse(options, streams);
  } catch (const NoWall& error) {
    streams.err << "tavrel: " << error.what() << "\n";
    return ExitCode::kNoWall;
  }
}

}  // namespace host::cli
