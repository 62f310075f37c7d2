// The routes of the API: what is served where, and the description of the API that is made from
// them.
#pragma once

#include <map>
#include <span>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "host/control/http/message.h"

namespace host::control::http {

enum class Role {
  kView,     // may only read
  kOperate,  // may also change the wall
};

struct Route {
  enum class What {
    kCommand,   // one command, whose fields are those of the body and of the path
    kCommands,  // one command or a list, as the body has them
    kWall,
    kChannels,
    kChannel,
    kLayouts,
    kLayout,
    kEvents,
    kWebSocket,
    kSnapshot,
    kPictures,
    kDescription,
    kMetrics,
    kLive,
    kReady,
    kHistory,
    kSession,       // who the client is
    kBeginSession,  // with a token
    kEndSession,
    kPage,  // the operator's page and its files
  };
  enum class Body { kNone, kOptional, kRequired };

  const char* method;
  const char* path;  // "/api/v1/channels/{channel}"; the parameter has the name of its field
  What what;
  const char* command;  // kCommand: its name; otherwise null
  Body body;
  int status;           // of the answer on success
  const char* summary;  // a sentence

  bool changes() const { return what == What::kCommand || what == What::kCommands; }
  Role role() const { return changes() ? Role::kOperate : Role::kView; }
  // Allowed without a token: contains nothing of the wall.
  bool isOpen() const {
    return what == What::kPage || what == What::kSession || what == What::kBeginSession ||
           what == What::kEndSession;
  }
  // Refused from a page of another site, although it changes nothing.
  bool isOwnOnly() const {
    return changes() || what == What::kEvents || what == What::kWebSocket ||
           what == What::kPictures || what == What::kBeginSession || what == What::kEndSession;
  }
  // The name in the path, without braces; empty when there is none.
  std::string parameter() const;
};

std::span<const Route> Routes();

struct Match {
  const Route* route = nullptr;
  std::string name;  // value of the route's parameter in the path
};
// HEAD is served as GET. Throws Problem: 404, or 405 with the methods that the path allows.
Match FindRoute(const Head& head);

// The description of the API in OpenAPI 3.1, from the tables that serve it: Routes and
// CommandKinds.
nlohmann::ordered_json DescribeApi();

}  // namespace host::control::http
