#include "host/control/http/access.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include "host/config/value_text.h"

namespace host::control::http {

namespace {

constexpr std::size_t kMinToken = 16;  // characters
constexpr std::size_t kMaxTokens = 1024;
constexpr std::string_view kBearer = "bearer ";
constexpr std::string_view kCookie = "tavrel_session=";
constexpr std::string_view kHexDigits = "0123456789abcdef";

// The name without the port, from Host or Origin: "::1" of "[::1]:8080".
std::string NameOf(const std::string& authority) {
  if (authority.starts_with('[')) {
    return authority.substr(1, authority.find(']') - 1);
  }
  return authority.substr(0, authority.find(':'));
}

// "wall:80" over HTTP and "wall:443" over HTTPS are "wall".
std::string WithoutDefaultPort(const std::string& authority, std::string_view port) {
  return authority.ends_with(port) ? authority.substr(0, authority.size() - port.size())
                                   : authority;
}

bool IsSameOrigin(const std::string& origin, const std::string& host) {
  for (const auto& [scheme, port] :
       {std::pair<std::string_view, std::string_view>{"http://", ":80"}, {"https://", ":443"}}) {
    if (origin.starts_with(scheme)) {
      return EqualsIgnoringCase(WithoutDefaultPort(origin.substr(scheme.size()), port),
                                WithoutDefaultPort(host, port));
    }
  }
  return false;
}

// The value of the session's cookie; empty when there is none.
std::string SessionCookieIn(const std::string& cookies) {
  for (std::size_t at = 0; at < cookies.size();) {
    const std::size_t end = std::min(cookies.find(';', at), cookies.size());
    const std::string_view one = std::string_view(cookies).substr(at, end - at);
    if (one.starts_with(kCookie)) {
      return std::string(one.substr(kCookie.size()));
    }
    at = end + 1;
    while (at < cookies.size() && cookies[at] == ' ') {
      ++at;
    }
  }
  return {};
}

std::string CookieAttributes(const Head& head) {
  return std::string("; Path=/; HttpOnly; SameSite=Strict") + (head.isTls ? "; Secure" : "");
}

bool IsLoopbackName(const std::string& name) {
  return EqualsIgnoringCase(name, "localhost") || name == "127.0.0.1" || name == "::1";
}

}  // namespace

Access::Access(const config::Http& http)
    : asksForToken_(!http.tokenFile.empty()), hosts_(http.hosts) {
  if (const auto mistake = config::HttpMistake(http)) {
    throw std::runtime_error("[http] \"" + mistake->first + "\" " + mistake->second);
  }
  if (http.listen) {
    hosts_.push_back(http.listen->host);
  }
  if (asksForToken_) {
    ReadTokens(http.tokenFile);
  }
}

void Access::ReadTokens(const std::filesystem::path& file) {
  const auto fail = [&](const std::string& why) {
    throw std::runtime_error("the file of tokens " + file.string() + " " + why);
  };
  using std::filesystem::perms;
  std::error_code reason;
  const perms permissions = std::filesystem::status(file, reason).permissions();
  if (reason) {
    fail("cannot be read: " + reason.message());
  }
  if ((permissions & (perms::others_all | perms::group_write)) != perms::none) {
    fail("is open to other users; make it readable by its owner alone: chmod 600 " + file.string());
  }
  std::ifstream stream(file);
  if (!stream) {
    fail("cannot be read");
  }
  std::string line;
  for (int number = 1; std::getline(stream, line); ++number) {
    std::istringstream words(line);
    std::string role;
    std::string token;
    std::string more;
    words >> role >> token >> more;
    if (role.empty() || role.starts_with('#')) {
      continue;
    }
    if ((role != "view" && role != "operate") || token.size() < kMinToken || !more.empty() ||
        tokens_.size() == kMaxTokens) {
      fail("has a mistake in line " + std::to_string(number) +
           ": each is \"view TOKEN\" or \"operate TOKEN\", a token of " +
           std::to_string(kMinToken) + " characters at least");
    }
    tokens_.push_back({DigestOf(token), role == "view" ? Role::kView : Role::kOperate});
  }
  if (tokens_.empty()) {
    fail("has no token");
  }
}

Access::Digest Access::DigestOf(const std::string& secret) {
  Digest digest{};
  SHA256(reinterpret_cast<const std::uint8_t*>(secret.data()), secret.size(), digest.data());
  return digest;
}

std::optional<Role> Access::RoleIn(const std::deque<Token>& tokens, const std::string& secret) {
  const Digest digest = DigestOf(secret);
  std::optional<Role> role;
  for (const Token& one : tokens) {
    if (CRYPTO_memcmp(one.digest.data(), digest.data(), digest.size()) == 0) {
      role = std::max(role.value_or(Role::kView), one.role);
    }
  }
  return role;
}

std::optional<Role> Access::RoleOf(const Head& head) const {
  if (!asksForToken_) {
    return Role::kOperate;
  }
  const std::string& field = head.authorization;
  if (EqualsIgnoringCase(field.substr(0, kBearer.size()), std::string(kBearer))) {
    return RoleIn(tokens_, field.substr(kBearer.size()));
  }
  const std::string cookie = SessionCookieIn(head.cookie);
  return cookie.empty() ? std::nullopt : RoleIn(sessions_, cookie);
}

std::string Access::BeginSession(const Head& head, const std::string& token) {
  const std::optional<Role> role = RoleIn(tokens_, token);
  if (!role) {
    throw Problem(401, "token", "The token is not known",
                  "the token is none of those of this wall");
  }
  std::array<std::uint8_t, 16> random{};
  if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
    throw std::runtime_error("the system has no random numbers for a session");
  }
  std::string cookie;
  for (const std::uint8_t byte : random) {
    cookie += kHexDigits[byte >> 4];
    cookie += kHexDigits[byte & 15];
  }
  sessions_.push_back({DigestOf(cookie), *role});
  if (sessions_.size() > kMaxSessions) {
    sessions_.pop_front();
  }
  return std::string(kCookie) + cookie + CookieAttributes(head);
}

std::string Access::EndSession(const Head& head) {
  const Digest digest = DigestOf(SessionCookieIn(head.cookie));
  std::erase_if(sessions_, [&](const Token& one) {
    return CRYPTO_memcmp(one.digest.data(), digest.data(), digest.size()) == 0;
  });
  return std::string(kCookie) + CookieAttributes(head) + "; Max-Age=0";
}

bool Access::IsOwnHost(const std::string& host, const Head& head) const {
  const std::string name = NameOf(host);
  // The address at which the request came in cannot be a name that another site has chosen.
  return IsLoopbackName(name) || name == head.local ||
         std::any_of(hosts_.begin(), hosts_.end(),
                     [&](const std::string& own) { return EqualsIgnoringCase(name, own); });
}

void Access::Check(const Head& head, const Route& route) const {
  if (!head.hasOneHost) {
    throw Problem(400, "no-host", "The request has no host", "a request has one Host field");
  }
  if (!IsOwnHost(head.host, head)) {
    throw Problem(421, "unknown-host", "The request is for another host",
                  "\"" + head.host + "\" is no name of this wall; \"hosts\" in [http] adds names");
  }
  // Browsers send cookies by themselves, and with a changing request also its origin.
  const bool hasNoOrigin = head.origin.empty() && head.authorization.empty() && asksForToken_ &&
                           (route.changes() || route.what == Route::What::kWebSocket);
  const bool isForeign = (!head.origin.empty() && !IsSameOrigin(head.origin, head.host)) ||
                         head.fetchSite == "cross-site" || head.fetchSite == "same-site" ||
                         (hasNoOrigin && !SessionCookieIn(head.cookie).empty());
  if (route.isOwnOnly() && isForeign) {
    throw Problem(403, "foreign-origin", "The request comes from another site",
                  "a page of another site may neither change nor follow the wall");
  }
  if (route.isOpen()) {
    return;
  }
  const std::optional<Role> role = RoleOf(head);
  if (!role) {
    throw Problem(401, "token", "The request needs a token",
                  head.authorization.empty()
                      ? "send \"Authorization: Bearer TOKEN\", or begin a session"
                      : "the token is not known")
        .With("WWW-Authenticate", "Bearer realm=\"wall\"");
  }
  if (*role < route.role()) {
    throw Problem(403, "role", "The token may only look",
                  "changing the wall needs a token of the role \"operate\"");
  }
}

Connections::Ticket Connections::Admit(const std::string& address) {
  entries_.remove_if([](const Ticket& entry) { return entry.use_count() == 1; });
  const auto ofOne = static_cast<std::size_t>(
      std::count_if(entries_.begin(), entries_.end(),
                    [&](const Ticket& entry) { return entry->address == address; }));
  if ((ofOne >= mostOfOne_ && !MakeRoom(&address)) ||
      (entries_.size() >= most_ && !MakeRoom(nullptr))) {
    return nullptr;
  }
  entries_.push_back(std::make_shared<Entry>());
  entries_.back()->address = address;
  entries_.back()->SetIdle(true);
  return entries_.back();
}

bool Connections::MakeRoom(const std::string* address) {
  auto oldest = entries_.end();
  for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
    if ((*entry)->isIdle && (address == nullptr || (*entry)->address == *address) &&
        (oldest == entries_.end() || (*entry)->since < (*oldest)->since)) {
      oldest = entry;
    }
  }
  if (oldest == entries_.end()) {
    return false;
  }
  const Ticket closed = *oldest;
  entries_.erase(oldest);
  if (closed->close) {
    closed->close();
  }
  return true;
}

std::size_t Connections::count() const {
  return static_cast<std::size_t>(std::count_if(
      entries_.begin(), entries_.end(), [](const Ticket& entry) { return entry.use_count() > 1; }));
}

void Connections::CloseAll() {
  for (const Ticket& entry : entries_) {
    if (entry->close) {
      entry->close();
    }
  }
}

}  // namespace host::control::http
