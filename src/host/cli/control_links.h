// ControlLinks: the connections through which a running wall is controlled from outside.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/config/wall.h"
#include "host/control/http/http_server.h"
#include "host/control/socket_server.h"
#include "host/control/tally/tally_receiver.h"
#include "host/control/wall_control.h"
#include "host/output/screen/screen_input.h"

namespace host::cli {

// Owns the WallControl and the socket, HTTP server and tally receiver that the wall asks for.
// Application's thread.
class ControlLinks {
 public:
  struct Settings {
    config::Wall wall;
    std::filesystem::path wallFile;                // empty: the wall has none
    std::function<nlohmann::ordered_json()> live;  // as in WallControl
    // As in HttpServer; empty: no pictures are served.
    control::http::Snapshots::Encode snapshot;
    std::shared_ptr<FragmentFeed> preview;             // as in HttpServer
    std::vector<std::shared_ptr<FragmentFeed>> audio;  // likewise
    control::Monitoring monitoring;
    std::function<void(const std::string&)> say;       // a message for the log
    std::function<void(const std::string&)> complain;  // something has failed
  };

  // executor outlives it. Throws std::runtime_error when the socket that the wall names, its HTTP
  // server or its tally receiver cannot be opened. When the wall names none and the default socket
  // cannot be opened, the wall runs without one and reports it.
  ControlLinks(control::WallExecutor& executor, Settings settings);
  ~ControlLinks();
  ControlLinks(const ControlLinks&) = delete;
  ControlLinks& operator=(const ControlLinks&) = delete;

  control::EventFeed& events() { return control_.events(); }
  control::WallControl& control() { return control_; }

  // Input of an operator at the screen of that name; any thread.
  void TakeInput(const std::string& screen, const ScreenInput& input);
  // Asks for a reload of the wall file.
  void Reload();
  // Waits for requests, no longer than the limit, and carries them out.
  void RunFor(std::uint32_t milliseconds);

 private:
  void Serve(const config::Wall& wall, const std::filesystem::path& wallFile);

  const std::function<void(const std::string&)> say_;
  const std::function<void(const std::string&)> complain_;
  control::WallControl control_;
  std::optional<control::SocketServer> socket_;
  std::optional<control::TallyReceiver> tally_;
  std::optional<control::http::HttpServer> http_;
};

}  // namespace host::cli
