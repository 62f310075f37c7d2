// Connections: who is connected, and whether another one may be.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace host::control::http {

// Server's thread. When there is no room, the connection that has waited for a request for the
// longest time makes it: a client that opens connections without requests keeps no other client
// out.
class Connections {
 public:
  struct Entry {
    std::string address;
    std::function<void()> close;
    bool isIdle = true;  // no request of it is in progress
    std::chrono::steady_clock::time_point since{};

    void SetIdle(bool idle) {
      isIdle = idle;
      since = std::chrono::steady_clock::now();
    }
  };
  // Of a connection, for as long as it is open.
  using Ticket = std::shared_ptr<Entry>;

  Connections(std::size_t most, std::size_t mostOfOne) : most_(most), mostOfOne_(mostOfOne) {}

  // Null when there is no room.
  Ticket Admit(const std::string& address);
  void CloseAll();
  // Connections that are open.
  std::size_t count() const;

 private:
  // Closes the one that is idle for the longest time, of that address or, without one, of all.
  bool MakeRoom(const std::string* address);

  const std::size_t most_;
  const std::size_t mostOfOne_;
  std::list<Ticket> entries_;
};

}  // namespace host::control::http
