// The parts of a URL, by its text alone.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace qorp {

// In lower case (ASCII), as schemes, hosts and names of parameters are compared.
inline std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

// "scheme://credentials@address/path?query": views of the text that was split.
struct UrlParts {
  std::string_view scheme;                        // everything before "://"
  std::optional<std::string_view> credentials{};  // none without "@"
  std::string_view address{};                     // host and port
  std::string_view path{};                        // with its leading slash; may be empty
  std::optional<std::string_view> query{};        // none without "?"
};

// None for a text without "://". A password may hold a slash that is not escaped: the last "@"
// before the query then ends it. A "#" has no meaning.
inline std::optional<UrlParts> SplitUrl(std::string_view text) {
  constexpr std::string_view kMark = "://";
  const std::size_t mark = text.find(kMark);
  if (mark == std::string_view::npos) {
    return {};
  }
  UrlParts parts{text.substr(0, mark)};
  text.remove_prefix(mark + kMark.size());
  if (const std::size_t query = text.find('?'); query != std::string_view::npos) {
    parts.query = text.substr(query + 1);
    text = text.substr(0, query);
  }
  std::size_t slash = std::min(text.find('/'), text.size());
  const std::string_view beforeSlash = text.substr(0, slash);
  if (const std::size_t at = text.rfind('@'); at != std::string_view::npos && at > slash &&
                                              beforeSlash.find('@') == std::string_view::npos &&
                                              beforeSlash.find(':') != std::string_view::npos) {
    slash = std::min(text.find('/', at), text.size());
  }
  parts.path = text.substr(slash);
  parts.address = text.substr(0, slash);
  if (const std::size_t at = parts.address.rfind('@'); at != std::string_view::npos) {
    parts.credentials = parts.address.substr(0, at);
    parts.address.remove_prefix(at + 1);
  }
  return parts;
}

}  // namespace qorp
