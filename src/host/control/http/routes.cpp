#include "host/control/http/routes.h"

#include <array>
#include <optional>
#include <string_view>

namespace host::control::http {

namespace {

using Body = Route::Body;
using What = Route::What;

constexpr std::array kRoutes{
    Route{"GET", "/api/v1/wall", What::kWall, nullptr, Body::kNone, 200,
          "The whole state of the wall, with what its channels and outputs do at this moment."},
    Route{"GET", "/api/v1/channels", What::kChannels, nullptr, Body::kNone, 200,
          "The channels, in order."},
    Route{"POST", "/api/v1/channels", What::kCommand, "add", Body::kRequired, 201,
          "Adds a channel in a spare slot."},
    Route{"GET", "/api/v1/channels/{channel}", What::kChannel, nullptr, Body::kNone, 200,
          "One channel."},
    Route{"PATCH", "/api/v1/channels/{channel}", What::kCommand, "set", Body::kRequired, 200,
          "Changes keys of a channel, its source included."},
    Route{"DELETE", "/api/v1/channels/{channel}", What::kCommand, "remove", Body::kNone, 200,
          "Removes a channel."},
    Route{"POST", "/api/v1/commands", What::kCommands, nullptr, Body::kRequired, 200,
          "Carries out one command, or a list as a whole."},
    Route{"GET", "/api/v1/layouts", What::kLayouts, nullptr, Body::kNone, 200,
          "The layouts that can be applied."},
    Route{"GET", "/api/v1/layouts/{layout}", What::kLayout, nullptr, Body::kNone, 200,
          "One layout."},
    Route{"PUT", "/api/v1/layouts/{layout}", What::kCommand, "save_layout", Body::kOptional, 200,
          "Saves the places of the windows as a layout."},
    Route{"DELETE", "/api/v1/layouts/{layout}", What::kCommand, "delete_layout", Body::kNone, 200,
          "Deletes a layout that was saved live."},
    Route{"POST", "/api/v1/layouts/{layout}/apply", What::kCommand, "layout", Body::kNone, 200,
          "Applies a layout."},
    Route{"POST", "/api/v1/alarms/{channel}/acknowledge", What::kCommand, "acknowledge",
          Body::kOptional, 200,
          "Acknowledges the alarms of a channel until they are raised again."},
    Route{"POST", "/api/v1/alarms/{channel}/mask", What::kCommand, "mask", Body::kRequired, 200,
          "Masks the alarms of a channel for a time."},
    Route{"GET", "/api/v1/history", What::kHistory, nullptr, Body::kNone, 200,
          "What happened within the last day, newest first."},
    Route{"GET", "/api/v1/session", What::kSession, nullptr, Body::kNone, 200,
          "What the client may do, and whether the wall asks for a token."},
    Route{"POST", "/api/v1/session", What::kBeginSession, nullptr, Body::kRequired, 200,
          "Begins a session with a token; a cookie stands for it from then on."},
    Route{"DELETE", "/api/v1/session", What::kEndSession, nullptr, Body::kNone, 200,
          "Ends the session of the cookie."},
    Route{"GET", "/", What::kPage, nullptr, Body::kNone, 200, "The operator's page."},
    Route{"GET", "/page/{file}", What::kPage, nullptr, Body::kNone, 200, "A file of the page."},
    Route{"GET", "/events", What::kEvents, nullptr, Body::kNone, 200,
          "A snapshot of the wall, then what happens to it, as server-sent events."},
    Route{"GET", "/ws", What::kWebSocket, nullptr, Body::kNone, 101,
          "The same over a WebSocket, which takes commands, too."},
    Route{"GET", "/snapshot.jpg", What::kSnapshot, nullptr, Body::kNone, 200,
          "The composed frame, or the window of one channel, as JPEG."},
    Route{"GET", "/preview.mjpg", What::kPictures, nullptr, Body::kNone, 200,
          "The composed frames in the size of the preview, five a second at most, as JPEG."},
    Route{"GET", "/openapi.json", What::kDescription, nullptr, Body::kNone, 200,
          "This description."},
    Route{"GET", "/metrics", What::kMetrics, nullptr, Body::kNone, 200,
          "Figures of the wall, its channels and outputs, as Prometheus reads them."},
    Route{"GET", "/livez", What::kLive, nullptr, Body::kNone, 200,
          "Whether frames are composed; otherwise 503 says since when not."},
    Route{"GET", "/readyz", What::kReady, nullptr, Body::kNone, 200,
          "Whether a frame was composed and an output works; otherwise 503 says why not."},
};

// The name in the path; empty when the pattern has none; none when the path does not match.
std::optional<std::string> NameIn(const std::string& path, std::string_view pattern) {
  const std::size_t open = pattern.find('{');
  if (open == std::string_view::npos) {
    return path == pattern ? std::optional<std::string>("") : std::nullopt;
  }
  const std::string_view tail = pattern.substr(pattern.find('}') + 1);
  if (path.size() <= open + tail.size() || !path.starts_with(pattern.substr(0, open)) ||
      !path.ends_with(tail)) {
    return std::nullopt;
  }
  const std::string name = path.substr(open, path.size() - open - tail.size());
  return name.find('/') == std::string::npos ? PercentDecoded(name) : std::nullopt;
}

}  // namespace

std::string Route::parameter() const {
  const std::string_view pattern(path);
  const std::size_t open = pattern.find('{');
  return open == std::string_view::npos
             ? std::string()
             : std::string(pattern.substr(open + 1, pattern.find('}') - open - 1));
}

std::span<const Route> Routes() {
  return kRoutes;
}

Match FindRoute(const Head& head) {
  const std::string method = head.method == "HEAD" ? "GET" : head.method;
  std::string allowed;
  for (const Route& route : kRoutes) {
    const std::optional<std::string> name = NameIn(head.path, route.path);
    if (name && method == route.method) {
      return {&route, *name};
    }
    if (name) {
      allowed += (allowed.empty() ? "" : ", ") + std::string(route.method) +
                 (std::string_view(route.method) == "GET" ? ", HEAD" : "");
    }
  }
  if (!allowed.empty()) {
    throw Problem(405, "method", "The method is not allowed here",
                  "this path takes " + allowed + ", not " + head.method)
        .With("Allow", allowed);
  }
  throw Problem(404, "unknown-path", "There is nothing here",
                "no such path; /openapi.json describes those that there are");
}

}  // namespace host::control::http
