// HttpServer: the HTTP API of a running wall.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/control/http/snapshots.h"
#include "host/control/monitoring.h"
#include "host/control/wall_control.h"
#include "host/output/fragments.h"

namespace host::control::http {

// One thread serves all clients; none of them waits for another one, and the wall waits for none.
// Requests go through the queue of the WallControl; waiting for its answer does not block the
// thread.
class HttpServer {
 public:
  // A client that exceeds one of them is refused or disconnected.
  struct Limits {
    std::size_t headerBytes = 16 << 10;
    std::size_t bodyBytes = 1 << 20;
    std::size_t messageBytes = 64 << 10;           // of a WebSocket
    std::size_t connections = 256;                 // in all
    std::size_t fromOneAddress = 64;               // of them; of IPv6, from one /64 network
    EventFeed::Limits waiting{};                   // events of one client
    FragmentFeed::Limits video{};                  // of the preview, that wait for one client
    FragmentFeed::Limits audio{.fragments = 250};  // of a channel, likewise
    std::chrono::milliseconds silence{5'000};      // until a channel that is to be heard has audio
    std::chrono::milliseconds header{10'000};      // until a request's header has come
    std::chrono::milliseconds body{30'000};        // likewise
    std::chrono::milliseconds idle{30'000};        // between two requests
    std::chrono::milliseconds write{30'000};       // until an answer or some events have been taken
    std::chrono::milliseconds answer{10'000};      // until the wall has carried out a request
    std::chrono::milliseconds keepAlive{15'000};   // between two signs of life for a follower
  };
  struct Settings {
    config::Http http;  // with an address
    // The composed frame, or a window of it, as JPEG; none while there is no frame. Called on a
    // thread of the server's own, may take a second. Empty: no pictures are served.
    Snapshots::Encode snapshot;
    std::shared_ptr<FragmentFeed> preview;             // null: none is served
    std::vector<std::shared_ptr<FragmentFeed>> audio;  // of each slot; empty: none is served
    Monitoring monitoring{};
    std::function<void(const std::string&)> say;  // a message for the log; server's thread
    Limits limits{};
  };

  class Core;

  // Listens from here on. Throws std::runtime_error, for a person: the address is not free, a file
  // cannot be used. control outlives it.
  HttpServer(Settings settings, WallControl& control);
  // Disconnects all clients.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // "http://127.0.0.1:8080", with the port that it has.
  const std::string& url() const { return url_; }

 private:
  std::unique_ptr<Core> core_;
  std::string url_;
};

}  // namespace host::control::http
