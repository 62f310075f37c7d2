#include "host/config/url.h"

#include <algorithm>
#include <charconv>

#include "util/url_parts.h"

namespace host::config {
namespace {

using qorp::LowerCase;

constexpr std::string_view kScreen = "screen:";
constexpr int kMaxDisplays = 16;

std::map<std::string, std::string> ParseQuery(std::string_view text) {
  std::map<std::string, std::string> query;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('&'), text.size());
    const std::string_view pair = text.substr(0, end);
    const std::size_t equals = std::min(pair.find('='), pair.size());
    query[std::string(pair.substr(0, equals))] = pair.substr(std::min(equals + 1, pair.size()));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return query;
}

}  // namespace

std::optional<int> Url::portNumber() const {
  int number = 0;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
  if (error != std::errc() || end != port.data() + port.size() || number < 1 || number > 65535) {
    return {};
  }
  return number;
}

std::optional<Url> ParseUrl(std::string_view text) {
  const std::optional<qorp::UrlParts> parts = qorp::SplitUrl(text);
  if (!parts) {
    return {};
  }
  Url url;
  url.scheme = LowerCase(parts->scheme);
  url.path = parts->path;
  url.query = ParseQuery(parts->query.value_or(std::string_view()));
  const std::string_view authority = parts->address;
  // An IPv6 address is in brackets, because it contains colons.
  const std::size_t bracket = authority.starts_with('[') ? authority.find(']') : 0;
  const std::size_t colon = authority.find(':', std::min(bracket, authority.size()));
  std::string_view host = authority.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  }
  url.host = LowerCase(host);
  if (colon != std::string_view::npos) {
    url.port = authority.substr(colon + 1);
  }
  return url;
}

bool Listens(const Url& url, const std::map<std::string, std::string>& options) {
  const auto value = [&](const char* key) {
    const auto inUrl = url.query.find(key);
    const auto option = options.find(key);
    return inUrl != url.query.end() ? inUrl->second : option != options.end() ? option->second : "";
  };
  const std::string listen = value("listen");
  return url.scheme == "srt" ? value("mode") == "listener" : !listen.empty() && listen != "0";
}

bool IsProcessStream(std::string_view text) {
  return text == "-" || text.starts_with("pipe:");
}

bool IsScreen(std::string_view text) {
  return LowerCase(text.substr(0, kScreen.size())) == kScreen;
}

std::optional<int> DisplayOf(std::string_view screen) {
  screen.remove_prefix(std::min(kScreen.size(), screen.size()));
  int number = 0;
  const auto [end, error] = std::from_chars(screen.data(), screen.data() + screen.size(), number);
  const bool isNumber = error == std::errc() && end == screen.data() + screen.size();
  if (!screen.empty() && (!isNumber || number < 0 || number >= kMaxDisplays)) {
    return {};
  }
  return number;
}

std::optional<std::string> LocalPath(std::string_view text) {
  constexpr std::string_view kFile = "file:";
  if (IsProcessStream(text)) {
    return {};
  }
  if (LowerCase(text.substr(0, kFile.size())) != kFile) {
    return text.find("://") == std::string_view::npos ? std::optional<std::string>(text)
                                                      : std::nullopt;
  }
  text.remove_prefix(kFile.size());
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    if (const std::size_t slash = text.find('/'); LowerCase(text.substr(0, slash)) == "localhost") {
      text.remove_prefix(std::min(slash, text.size()));
    }
  }
  return std::string(text);
}

}  // namespace host::config
