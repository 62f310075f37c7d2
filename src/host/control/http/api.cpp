#include "host/control/http/api.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/config/layout.h"
#include "host/control/http/routes.h"

namespace host::control::http {

namespace {

using Json = nlohmann::ordered_json;
using What = Route::What;

constexpr int kMaxDepth = 16;  // of lists and objects within each other

std::string Tag(std::uint64_t version) {
  return "\"" + std::to_string(version) + "\"";
}

// The versions in a list of entity tags; other tags cannot be versions of this wall.
std::vector<std::uint64_t> VersionsIn(const std::string& tags) {
  std::vector<std::uint64_t> versions;
  for (std::size_t at = tags.find('"'); at != std::string::npos; at = tags.find('"', at)) {
    const std::size_t end = tags.find('"', at + 1);
    std::uint64_t version = 0;
    const char* const last = tags.data() + std::min(end, tags.size());
    if (std::from_chars(tags.data() + at + 1, last, version).ptr == last && end != at + 1) {
      versions.push_back(version);
    }
    at = end == std::string::npos ? end : end + 1;
  }
  return versions;
}

bool HasLabels(const WallState& state) {
  return std::any_of(state.order.begin(), state.order.end(), [&](std::size_t slot) {
    return state.slots[slot]->settings.label.source != config::Label::Source::kNone;
  });
}

[[noreturn]] void FailUnknown(const char* what, const std::string& name,
                              const std::vector<std::string>& known) {
  throw Problem::Of(CommandError(CommandError::Kind::kUnknown,
                                 std::string("there is no ") + what + " \"" + name + "\"", "/name",
                                 config::NearestName(name, known)),
                    "name");
}

Json ResultJson(const Accepted& accepted) {
  Json json;
  json["version"] = accepted.version;
  json["changed"] = accepted.hasChanged;
  if (accepted.hasChanged) {
    json["frame"] = accepted.frame;
  }
  json.update(accepted.more);
  return json;
}

}  // namespace

Api::Api(WallControl& control) : control_(control), description_(OneLine(DescribeApi())) {}

nlohmann::json Api::Parse(const std::string& text) {
  const auto callback = [](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
    if (depth > kMaxDepth) {
      throw Problem::Malformed("lists and objects lie more than " + std::to_string(kMaxDepth) +
                                   " deep within each other",
                               400);
    }
    return true;
  };
  try {
    return nlohmann::json::parse(text, callback);
  } catch (const nlohmann::json::exception& error) {
    throw Problem::Malformed(std::string("the body is no JSON: ") + error.what(), 400);
  }
}

Json Api::Layouts() const {
  const std::shared_ptr<const WallState> state = control_.state();
  Json layouts = Json::array();
  for (const std::string& name : state->LayoutNames()) {
    Json layout{
        {"name", name}, {"applied", state->layout == name}, {"saved", state->saved.contains(name)}};
    std::vector<config::Layout::Place> places;
    if (const auto own = state->layouts.find(name); own != state->layouts.end()) {
      places = own->second.places;
    } else if (const auto windows =
                   config::BuiltInPlaces(name, state->canvas, state->rules, HasLabels(*state))) {
      for (const config::Window& window : *windows) {
        places.push_back({window, {}});
      }
    }
    layout["places"] = Json::array();
    for (const config::Layout::Place& place : places) {
      const config::Window& window = place.window;
      Json json{{"window", Json::array({window.x, window.y, window.width, window.height})}};
      if (!place.channel.empty()) {
        json["channel"] = place.channel;
      }
      layout["places"].push_back(std::move(json));
    }
    layouts.push_back(std::move(layout));
  }
  return layouts;
}

Answer Api::Read(const Match& match, const Head& head) const {
  if (match.route->what == What::kDescription) {
    return {.body = description_};
  }
  Json json;
  std::uint64_t version = 0;
  if (match.route->what == What::kLayouts || match.route->what == What::kLayout) {
    version = control_.version();
    json = Layouts();
  } else {
    json = control_.Snapshot();
    version = json["version"].get<std::uint64_t>();
    json["dropped_clients"] = control_.events().dropped();
    if (match.route->what != What::kWall) {
      Json channels = std::move(json["channels"]);
      json = std::move(channels);
    }
  }
  if (match.route->what == What::kLayout || match.route->what == What::kChannel) {
    std::vector<std::string> known;
    Json found;
    for (Json& one : json) {
      known.push_back(one["name"].get<std::string>());
      if (known.back() == match.name) {
        found = std::move(one);
      }
    }
    if (found.is_null()) {
      FailUnknown(match.route->what == What::kLayout ? "layout" : "channel", match.name, known);
    }
    json = std::move(found);
  }
  Answer answer{.fields = {{"ETag", Tag(version)}}};
  const std::vector<std::uint64_t> has = VersionsIn(head.ifNoneMatch);
  if (head.ifNoneMatch == "*" || std::find(has.begin(), has.end(), version) != has.end()) {
    answer.status = 304;
  } else {
    answer.body = OneLine(json);
  }
  return answer;
}

Request Api::RequestOf(const Match& match, const Head& head, const std::string& body) const {
  Request request;
  request.from = "http " + head.peer;
  if (!head.ifMatch.empty() && head.ifMatch != "*") {
    const std::vector<std::uint64_t> expected = VersionsIn(head.ifMatch);
    const std::uint64_t version = control_.version();
    // Of several versions the matching one; a tag that is no version never matches.
    request.ifVersion = expected.empty() ? 0
                        : std::find(expected.begin(), expected.end(), version) != expected.end()
                            ? version
                            : expected[0];
  }
  if (body.empty() && match.route->body == Route::Body::kRequired) {
    throw Problem::Malformed("the request needs a body", 400);
  }
  nlohmann::json json = body.empty() ? nlohmann::json::object() : Parse(body);
  if (match.route->what == What::kCommands) {
    request.commands = std::move(json);
    return request;
  }
  if (!json.is_object()) {
    throw Problem::Malformed("the body must be an object");
  }
  const std::string parameter = match.route->parameter();
  if (json.contains("command") || (!parameter.empty() && json.contains(parameter))) {
    throw Problem::Malformed("\"command\" and the name in the path are no keys of the body");
  }
  json["command"] = match.route->command;
  if (!parameter.empty()) {
    json[parameter] = match.name;
  }
  request.commands = std::move(json);
  return request;
}

Answer Api::AnswerOf(const Match& match, const Result& result) const {
  if (const auto* const error = std::get_if<CommandError>(&result)) {
    return Problem::Of(*error, match.route->parameter()).ToAnswer();
  }
  const auto& accepted = std::get<Accepted>(result);
  return {.status = match.route->status,
          .body = OneLine(ResultJson(accepted)),
          .fields = {{"ETag", Tag(accepted.version)}}};
}

std::string Api::TokenIn(const std::string& body) {
  const nlohmann::json json = Parse(body);
  if (!json.is_object() || json.size() != 1 || !json.contains("token") ||
      !json["token"].is_string()) {
    throw Problem::Malformed("the body is {\"token\": \"...\"}");
  }
  return json["token"].get<std::string>();
}

std::optional<std::uint64_t> Api::BeforeIn(const std::string& query) {
  constexpr std::string_view kBefore = "before=";
  if (query.empty()) {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  const char* const last = query.data() + query.size();
  if (!query.starts_with(kBefore) || query.size() == kBefore.size() ||
      std::from_chars(query.data() + kBefore.size(), last, number).ptr != last) {
    throw Problem::Malformed("the query is nothing or \"before=NUMBER\"", 400);
  }
  return number;
}

Request Api::RequestOf(nlohmann::json message, const std::string& peer) {
  if (!message.is_object() || !message.contains("commands")) {
    throw Problem::Malformed(
        "a message is {\"commands\": a command or a list, \"id\": ..., "
        "\"if_version\": ...}, {\"preview\": true or false, \"id\": ...} or {\"listen\": "
        "a channel or null, \"id\": ...}");
  }
  Request request;
  request.from = "http " + peer;
  request.commands = std::move(message["commands"]);
  if (const auto version = message.find("if_version"); version != message.end()) {
    if (!version->is_number_unsigned()) {
      throw Problem::Malformed("\"if_version\" must be a version");
    }
    request.ifVersion = version->get<std::uint64_t>();
  }
  return request;
}

std::string Api::ReplyTo(const nlohmann::json& id, const Result& result) {
  if (const auto* const error = std::get_if<CommandError>(&result)) {
    return ReplyTo(id, Problem::Of(*error, ""));
  }
  return ReplyTo(id, ResultJson(std::get<Accepted>(result)));
}

std::string Api::ReplyTo(const nlohmann::json& id, const Json& result) {
  return OneLine({{"event", "reply"}, {"id", id}, {"result", result}});
}

std::string Api::ReplyTo(const nlohmann::json& id, const Problem& problem) {
  return OneLine({{"event", "reply"}, {"id", id}, {"problem", problem.ToJson()}});
}

std::optional<config::Window> Api::WindowFor(const std::string& query) const {
  constexpr std::string_view kChannel = "channel=";
  if (query.empty()) {
    return std::nullopt;
  }
  std::string encoded = query;
  std::replace(encoded.begin(), encoded.end(), '+', ' ');
  const auto name = encoded.starts_with(kChannel) && encoded.find('&') == std::string::npos
                        ? PercentDecoded(encoded.substr(kChannel.size()))
                        : std::nullopt;
  if (!name) {
    throw Problem::Malformed("the query is nothing or \"channel=NAME\"", 400);
  }
  const std::shared_ptr<const WallState> state = control_.state();
  const ChannelEntry* const entry = state->Find(*name);
  if (entry == nullptr) {
    FailUnknown("channel", *name, state->ChannelNames());
  }
  if (!entry->isShown()) {
    throw Problem(409, "not-shown", "The channel is not shown",
                  "\"" + *name + "\" has no window at this moment");
  }
  return entry->settings.window;
}

std::string Api::Snapshot(std::uint64_t number) const {
  return OneLine({{"event", "snapshot"}, {"number", number}, {"wall", control_.Snapshot()}});
}

std::string Api::Numbered(const EventFeed::Event& event) {
  const std::string& line = *event.line;
  const bool isEmpty = line.size() <= 2;
  return "{\"number\":" + std::to_string(event.number) + (isEmpty ? "}" : ",") +
         (isEmpty ? "" : line.substr(1));
}

}  // namespace host::control::http
