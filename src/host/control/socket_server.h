// SocketServer: programs of this machine control a running wall through a local socket.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

#include "host/control/event_feed.h"
#include "host/control/wall_control.h"
#include "platform/os/sockets.h"
#include "platform/os/thread.h"

namespace host::control {

// Both directions carry one JSON object in a line.
//
//   {"id":1,"commands":[{"command":"solo","channel":"A"}],"if_version":7}
//     {"id":1,"ok":true,"version":8,"frame":1234,"changed":true}
//     {"id":1,"ok":false,"error":{"kind":"unknown","detail":"...","pointer":"/0/channel",
//      "nearest":"A"}}
//   {"id":2,"get":"wall"}     {"id":2,"ok":true,"wall":{...}}
//   {"id":3,"watch":true}     {"id":3,"ok":true,"wall":{...}}, then {"number":12,"event":{...}} for
//     each event from there on
//
// id: a number or text, returned unchanged. A client that reads its events too slowly gets
// {"dropped":true} and is disconnected, as is one whose request is longer than 1 MB. No further
// requests are read from a client that does not read its answers.
//
// A thread of its own serves all clients and never waits for one. Made and destroyed by the
// application's thread; control outlives it, and is closed before it is destroyed.
class SocketServer {
 public:
  static constexpr std::size_t kMaxClients = 64;
  static constexpr std::size_t kMaxRequest = 1'000'000;  // bytes of a line

  // Throws std::runtime_error that says why nothing can be served there.
  SocketServer(const std::filesystem::path& path, WallControl& control);
  // Removes the socket.
  ~SocketServer();
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  class Clients;

  const std::filesystem::path path_;
  const std::shared_ptr<Clients> clients_;  // shared with the callbacks of requests
  std::unique_ptr<os::Thread> thread_;
};

// The default socket of a wall of that file: NAME.sock for NAME.toml.
std::filesystem::path UsualSocket(const std::filesystem::path& wallFile);

}  // namespace host::control
