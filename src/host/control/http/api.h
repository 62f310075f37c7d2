// Api: the answers of the routes from the state of a running wall, and the requests they make of
// it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/control/http/message.h"
#include "host/control/http/routes.h"
#include "host/control/wall_control.h"

namespace host::control::http {

// Belongs to the server and is called on its thread; nothing here waits.
class Api {
 public:
  // control outlives it.
  explicit Api(WallControl& control);

  // The answer of a route that reads. Throws Problem.
  Answer Read(const Match& match, const Head& head) const;
  // The request of a route that changes the wall. Throws Problem.
  Request RequestOf(const Match& match, const Head& head, const std::string& body) const;
  Answer AnswerOf(const Match& match, const Result& result) const;

  // The token in the body {"token":"..."}. Throws Problem.
  static std::string TokenIn(const std::string& body);
  // The number in the query "before=N", of the history; none without a query. Throws Problem.
  static std::optional<std::uint64_t> BeforeIn(const std::string& query);

  // Throws Problem when it is not JSON or nested too deeply.
  static nlohmann::json Parse(const std::string& text);
  // A message of a WebSocket: {"commands":...,"id":...,"if_version":...}. Throws Problem.
  static Request RequestOf(nlohmann::json message, const std::string& peer);
  // id: of the message.
  static std::string ReplyTo(const nlohmann::json& id, const Result& result);
  static std::string ReplyTo(const nlohmann::json& id, const nlohmann::ordered_json& result);
  static std::string ReplyTo(const nlohmann::json& id, const Problem& problem);

  // The channel's window, for a picture of it; none for the whole canvas. Throws Problem.
  std::optional<config::Window> WindowFor(const std::string& query) const;
  // {"event":"snapshot","number":N,"wall":{...}}: the state with all events up to that number, and
  // perhaps some later ones.
  std::string Snapshot(std::uint64_t number) const;
  // The line of an event with its running number in it.
  static std::string Numbered(const EventFeed::Event& event);

  WallControl& control() const { return control_; }

 private:
  nlohmann::ordered_json Layouts() const;

  WallControl& control_;
  const std::string description_;
};

}  // namespace host::control::http
