// Access: who may send a request, and to whom it was addressed.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/control/http/message.h"
#include "host/control/http/routes.h"

namespace host::control::http {

// A browser runs what any site sends it, on a machine that may reach the wall: so a request must
// name the wall as its host, and one that changes it or keeps a connection must come from a page of
// the wall, or from no page at all. Immutable: any thread.
class Access {
 public:
  // Throws std::runtime_error, for a person, when the settings or the file of tokens cannot be
  // used.
  explicit Access(const config::Http& http);

  // Throws Problem: 400, 401, 403 or 421.
  void Check(const Head& head, const Route& route) const;
  // What the credentials of the request allow; none when there are none that are known. Other kinds
  // of credentials, such as a cookie, would be looked at here.
  std::optional<Role> RoleOf(const Head& head) const;

 private:
  using Digest = std::array<std::uint8_t, 32>;
  struct Token {
    Digest digest;
    Role role;
  };

  void ReadTokens(const std::filesystem::path& file);
  bool IsOwnHost(const std::string& host, const Head& head) const;

  bool asksForToken_ = false;
  std::vector<Token> tokens_;
  std::vector<std::string> hosts_;
};

}  // namespace host::control::http
