#include "host/ffmpeg/mask.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace host::ffmpeg {

namespace {

constexpr std::string_view kMask = "***";

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

bool IsSchemeCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '-' || c == '.';
}

// A URL within a text ends at a blank, a quote or a bracket of the surrounding sentence.
bool EndsUrl(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0 || c == '"' || c == '\'' || c == '<' ||
         c == '>' || c == '`';
}

bool IsSecretParameter(std::string_view name) {
  static constexpr std::array<std::string_view, 18> kSecrets = {
      "passphrase", "password",     "passwd",   "pass",       "pwd",       "token",
      "key",        "secret",       "auth",     "sig",        "signature", "apikey",
      "api_key",    "access_token", "streamid", "credential", "user",      "username"};
  const std::string lower = LowerCase(name);
  // Signed cloud links carry prefixed names, such as X-Amz-Signature.
  return std::find(kSecrets.begin(), kSecrets.end(), lower) != kSecrets.end() ||
         lower.ends_with("-signature") || lower.ends_with("-credential") ||
         lower.ends_with("-token");
}

std::string MaskQuery(std::string_view query) {
  std::string masked;
  while (!query.empty()) {
    const std::size_t end = std::min(query.find_first_of("&;"), query.size());
    const std::string_view parameter = query.substr(0, end);
    const std::size_t equals = parameter.find('=');
    if (equals != std::string_view::npos && IsSecretParameter(parameter.substr(0, equals))) {
      masked.append(parameter.substr(0, equals + 1)).append(kMask);
    } else {
      masked.append(parameter);
    }
    if (end < query.size()) {
      masked.push_back(query[end]);
    }
    query.remove_prefix(std::min(end + 1, query.size()));
  }
  return masked;
}

std::string MaskPath(std::string_view scheme, std::string_view path) {
  const std::size_t last = path.rfind('/');
  // "/live/key" has a stream key; "/live" alone is only the application.
  if (!scheme.starts_with("rtmp") || last == std::string_view::npos || last == 0 ||
      last + 1 == path.size()) {
    return std::string(path);
  }
  return std::string(path.substr(0, last + 1)).append(kMask);
}

// What follows "scheme://" up to the end of the URL.
std::string MaskAfterScheme(std::string_view scheme, std::string_view rest) {
  const std::size_t authorityEnd = std::min(rest.find_first_of("/?#"), rest.size());
  std::string_view authority = rest.substr(0, authorityEnd);
  rest.remove_prefix(authorityEnd);
  // A password may hold a slash that its owner did not escape: then the last "@" before the query
  // still ends it.
  const std::string_view beforeQuery =
      rest.substr(0, std::min(rest.find_first_of("?#"), rest.size()));
  const std::size_t lateAt = beforeQuery.rfind('@');
  std::string masked;
  if (authority.find('@') == std::string_view::npos && lateAt != std::string_view::npos &&
      authority.find(':') != std::string_view::npos) {
    const std::size_t hostEnd = std::min(rest.find_first_of("/?#", lateAt), rest.size());
    masked.append(kMask).append(rest.substr(lateAt, hostEnd - lateAt));
    rest.remove_prefix(hostEnd);
  } else if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos && at > 0) {
    masked.append(kMask).append(authority.substr(at));
  } else {
    masked.append(authority);
  }
  const std::size_t query = std::min(rest.find('?'), rest.size());
  masked += MaskPath(scheme, rest.substr(0, query));
  if (query < rest.size()) {
    masked.push_back('?');
    masked += MaskQuery(rest.substr(query + 1));
  }
  return masked;
}

}  // namespace

std::string MaskCredentials(std::string_view text) {
  std::string masked;
  std::size_t done = 0;
  for (std::size_t mark = text.find("://"); mark != std::string_view::npos;
       mark = text.find("://", done)) {
    std::size_t schemeStart = mark;
    while (schemeStart > done && IsSchemeCharacter(text[schemeStart - 1])) {
      --schemeStart;
    }
    const std::size_t restStart = mark + 3;
    const auto end =
        std::find_if(text.begin() + static_cast<std::ptrdiff_t>(restStart), text.end(), EndsUrl);
    const auto urlEnd = static_cast<std::size_t>(end - text.begin());
    masked.append(text.substr(done, restStart - done));
    masked += MaskAfterScheme(LowerCase(text.substr(schemeStart, mark - schemeStart)),
                              text.substr(restStart, urlEnd - restStart));
    done = urlEnd;
  }
  masked.append(text.substr(done));
  return masked;
}

}  // namespace host::ffmpeg
