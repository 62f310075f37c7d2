// Access control: who may send a request, and to which host it was addressed (Access); who is
// connected, and whether one more may be (Connections).
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/control/http/message.h"
#include "host/control/http/routes.h"

namespace host::control::http {

// A browser runs the scripts of any site, on a machine that may reach the wall. A request must
// therefore name the wall as its host, and one that changes it or keeps a connection must come from
// a page of the wall, or from no page at all. Server's thread.
class Access {
 public:
  // Throws std::runtime_error, for a person, when the settings or the file of tokens cannot be
  // used.
  explicit Access(const config::Http& http);

  // Throws Problem: 400, 401, 403 or 421.
  void Check(const Head& head, const Route& route) const;
  // The role of the request's credentials, a token or the cookie of a session; none without known
  // credentials.
  std::optional<Role> RoleOf(const Head& head) const;
  // None when it is not known.
  std::optional<Role> RoleOfToken(const std::string& token) const { return RoleIn(tokens_, token); }
  bool asksForToken() const { return asksForToken_; }

  // Returns the cookie of a session with the role of the token, as a field Set-Cookie has it. The
  // oldest of too many sessions ends. Throws Problem 401 when the token is not known, and
  // std::runtime_error when there is no randomness.
  std::string BeginSession(const Head& head, const std::string& token);
  // Returns the field Set-Cookie that removes the cookie. Harmless without a session.
  std::string EndSession(const Head& head);

 private:
  static constexpr std::size_t kMaxSessions = 256;
  using Digest = std::array<std::uint8_t, 32>;
  // Digests have one length and are compared in constant time.
  struct Token {
    Digest digest;
    Role role;
  };

  static Digest DigestOf(const std::string& secret);
  static std::optional<Role> RoleIn(const std::deque<Token>& tokens, const std::string& secret);
  void ReadTokens(const std::filesystem::path& file);
  bool IsOwnHost(const std::string& host, const Head& head) const;

  bool asksForToken_ = false;
  std::deque<Token> tokens_;
  std::deque<Token> sessions_;  // by their cookies, oldest first
  std::vector<std::string> hosts_;
};

// Server's thread. When there is no room, the connection that has waited for a request for the
// longest time is closed: a client that opens connections without requests keeps no other client
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
