#include "host/ffmpeg/mask.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "platform/os/mutex.h"
#include "util/url_parts.h"

namespace host::ffmpeg {
namespace {

using qorp::LowerCase;

constexpr std::string_view kMask = "***";

bool IsSchemeCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '-' || c == '.';
}

// A URL within a text ends at a blank, a quote or a bracket of the surrounding sentence.
bool EndsUrl(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0 || c == '"' || c == '\'' || c == '<' ||
         c == '>' || c == '`';
}

// Parameters of protocols and cameras; any other one may be a key.
bool IsHarmlessParameter(std::string_view name) {
  static const std::set<std::string, std::less<>> kHarmless = {"action",
                                                               "audio",
                                                               "bitrate",
                                                               "block",
                                                               "broadcast",
                                                               "buffer_size",
                                                               "burst_bits",
                                                               "camera",
                                                               "channel",
                                                               "codec",
                                                               "connect",
                                                               "connect_timeout",
                                                               "dscp",
                                                               "ffs",
                                                               "fifo_size",
                                                               "format",
                                                               "fps",
                                                               "height",
                                                               "inputbw",
                                                               "iptos",
                                                               "ipttl",
                                                               "lang",
                                                               "language",
                                                               "latency",
                                                               "linger",
                                                               "listen",
                                                               "listen_timeout",
                                                               "localaddr",
                                                               "localport",
                                                               "localrtcpport",
                                                               "localrtpport",
                                                               "lossmaxttl",
                                                               "maxbw",
                                                               "mode",
                                                               "mss",
                                                               "nakreport",
                                                               "oheadbw",
                                                               "overrun_nonfatal",
                                                               "payload_size",
                                                               "pbkeylen",
                                                               "peerlatency",
                                                               "pkt_size",
                                                               "profile",
                                                               "program",
                                                               "proto",
                                                               "q",
                                                               "quality",
                                                               "rcvbuf",
                                                               "rcvlatency",
                                                               "recv_buffer_size",
                                                               "resolution",
                                                               "reuse",
                                                               "reuse_socket",
                                                               "rtcpport",
                                                               "rw_timeout",
                                                               "send_buffer_size",
                                                               "sndbuf",
                                                               "sources",
                                                               "stream",
                                                               "subtype",
                                                               "tcp_nodelay",
                                                               "timeout",
                                                               "tlpktdrop",
                                                               "track",
                                                               "transport",
                                                               "transtype",
                                                               "ttl",
                                                               "unicast",
                                                               "video",
                                                               "width"};
  return kHarmless.contains(LowerCase(name));
}

bool IsSecretOption(std::string_view name) {
  static const std::set<std::string, std::less<>> kSecret = {
      "auth",          "cookies",    "cryptokey",    "decryption_key", "headers",
      "http_proxy",    "key",        "passphrase",   "password",       "rtmp_conn",
      "rtmp_playpath", "rtmp_tcurl", "srt_streamid", "srtp_in_params", "srtp_out_params",
      "streamid",      "user",       "username"};
  return kSecret.contains(LowerCase(name));
}

// Called for each secret of a URL.
using Found = std::function<void(std::string_view secret)>;

std::string MaskQuery(std::string_view query, const Found& found) {
  std::string masked;
  while (!query.empty()) {
    const std::size_t end = std::min(query.find_first_of("&;"), query.size());
    const std::string_view parameter = query.substr(0, end);
    const std::size_t equals = std::min(parameter.find('='), parameter.size());
    if (equals < parameter.size() && !IsHarmlessParameter(parameter.substr(0, equals))) {
      found(parameter.substr(equals + 1));
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

std::string MaskPath(std::string_view scheme, std::string_view path, const Found& found) {
  const std::size_t last = path.rfind('/');
  // "/live/key" has a stream key; "/live" alone is only the application.
  if (!scheme.starts_with("rtmp") || last == std::string_view::npos || last == 0 ||
      last + 1 == path.size()) {
    return std::string(path);
  }
  found(path.substr(last + 1));
  return std::string(path.substr(0, last + 1)).append(kMask);
}

std::size_t SchemeStart(std::string_view text, std::size_t mark, std::size_t from) {
  while (mark > from && IsSchemeCharacter(text[mark - 1])) {
    --mark;
  }
  return mark;
}

// "%40" as "@".
std::string Unescaped(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned code = 0;
    const char* const digits = text.data() + i + 1;
    if (text[i] == '%' && i + 2 < text.size() &&
        std::from_chars(digits, digits + 2, code, 16).ptr == digits + 2) {
      plain.push_back(static_cast<char>(code));
      i += 2;
    } else {
      plain.push_back(text[i]);
    }
  }
  return plain;
}

// Longest first, because one may be a part of another.
struct LongestFirst {
  bool operator()(const std::string& a, const std::string& b) const {
    return a.size() != b.size() ? a.size() > b.size() : a < b;
  }
};
struct HiddenTexts {
  struct Use {
    std::size_t users = 0;
    std::size_t releases = 0;  // of those in released
  };
  std::map<std::string, Use, LongestFirst> texts;
  std::deque<std::string> released;  // oldest first; some are in use again
};
os::Mutex hiddenLock;
HiddenTexts& Hidden() REQUIRES(hiddenLock) {
  static HiddenTexts hidden;
  return hidden;
}

std::string WithoutSecrets(std::string text) {
  const os::MutexLock guard(hiddenLock);
  for (const auto& [secret, use] : Hidden().texts) {
    for (std::size_t at = text.find(secret); at != std::string::npos;
         at = text.find(secret, at + kMask.size())) {
      text.replace(at, secret.size(), kMask);
    }
  }
  return text;
}

std::string MaskWhole(std::string_view url, const Found& found) {
  const std::optional<qorp::UrlParts> parts = qorp::SplitUrl(url);
  if (!parts) {
    return std::string(url);
  }
  std::string masked(parts->scheme);
  masked += "://";
  if (parts->credentials) {
    if (!parts->credentials->empty()) {
      found(*parts->credentials);
      masked += kMask;
    }
    masked += '@';
  }
  masked += parts->address;
  const std::size_t start = SchemeStart(url, parts->scheme.size(), 0);
  masked += MaskPath(LowerCase(parts->scheme.substr(start)), parts->path, found);
  if (parts->query) {
    masked += '?';
    masked += MaskQuery(*parts->query, found);
  }
  return masked;
}

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The bytes of the well-formed character at the beginning of a text that is not empty, and its
// code point; 0 bytes when there is none.
std::size_t ReadCharacter(std::string_view text, std::uint32_t& code) {
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xC2 ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  code = length == 1 ? first : first & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (!IsContinuation(text[i])) {
      return 0;
    }
    code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
  }
  const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool isNone = code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF);
  return tooLong || isNone ? 0 : length;
}

bool IsControl(std::uint32_t code) {
  const bool separates = code == 0x2028 || code == 0x2029;
  const bool changesDirection = code == 0x061C || code == 0x200E || code == 0x200F ||
                                (code >= 0x202A && code <= 0x202E) ||
                                (code >= 0x2066 && code <= 0x2069);
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || separates || changesDirection;
}

}  // namespace

std::string MaskCredentials(std::string_view original) {
  const std::string text = WithoutSecrets(std::string(original));
  std::string masked;
  std::size_t done = 0;
  for (std::size_t mark = text.find("://"); mark != std::string::npos;
       mark = text.find("://", done)) {
    const auto end =
        std::find_if(text.begin() + static_cast<std::ptrdiff_t>(mark + 3), text.end(), EndsUrl);
    const auto urlEnd = static_cast<std::size_t>(end - text.begin());
    const std::size_t start = SchemeStart(text, mark, done);
    masked.append(text, done, start - done);
    masked += MaskWhole(std::string_view(text).substr(start, urlEnd - start), [](auto) {});
    done = urlEnd;
  }
  masked.append(text, done);
  return masked;
}

std::string MaskUrl(std::string_view url) {
  return MaskWhole(url, [](auto) {});
}

Secrets::Secrets(std::string_view url, const std::map<std::string, std::string>& options) {
  MaskWhole(url, [this](std::string_view secret) {
    Hide(secret);
    // The password alone is a secret, too.
    if (const std::size_t colon = secret.find(':'); colon != std::string_view::npos) {
      Hide(secret.substr(colon + 1));
    }
  });
  for (const auto& [name, value] : options) {
    if (!IsSecretOption(name)) {
      continue;
    }
    Hide(value);
    // Of each header, the value after the name.
    for (std::string_view rest = value; !rest.empty();) {
      const std::string_view line = rest.substr(0, rest.find_first_of("\r\n"));
      rest.remove_prefix(std::min(line.size() + 1, rest.size()));
      if (const std::size_t colon = line.find(": "); colon != std::string_view::npos) {
        Hide(line.substr(colon + 2));
      }
    }
  }
}

void Secrets::Hide(std::string_view secret) {
  constexpr std::size_t kMinLength = 4;  // bytes
  const os::MutexLock guard(hiddenLock);
  for (const std::string& form : {std::string(secret), Unescaped(secret)}) {
    if (form.size() >= kMinLength && form != kMask) {
      ++Hidden().texts[form].users;
      texts_.push_back(form);
    }
  }
}

Secrets::~Secrets() {
  constexpr std::size_t kMaxReleased = 1000;
  const os::MutexLock guard(hiddenLock);
  HiddenTexts& hidden = Hidden();
  for (std::string& text : texts_) {
    HiddenTexts::Use& use = hidden.texts[text];
    if (--use.users == 0) {
      ++use.releases;
      hidden.released.push_back(std::move(text));
    }
  }
  while (hidden.released.size() > kMaxReleased) {
    const auto oldest = hidden.texts.find(hidden.released.front());
    if (--oldest->second.releases == 0 && oldest->second.users == 0) {
      hidden.texts.erase(oldest);
    }
    hidden.released.pop_front();
  }
}

std::string Printable(std::string_view text) {
  constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
  std::string clean;
  clean.reserve(text.size());
  while (!text.empty()) {
    std::uint32_t code = 0;
    const std::size_t length = ReadCharacter(text, code);
    if (length == 0) {
      clean += kReplacement;
    } else if (IsControl(code)) {
      clean += ' ';
    } else {
      clean += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return clean;
}

std::string_view CutToBytes(std::string_view text, std::size_t bytes) {
  if (text.size() <= bytes) {
    return text;
  }
  while (bytes > 0 && IsContinuation(text[bytes])) {
    --bytes;
  }
  return text.substr(0, bytes);
}

std::string_view CutToColumns(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  for (; end < text.size(); ++end) {
    if (!IsContinuation(text[end]) && columns-- == 0) {
      break;
    }
  }
  return text.substr(0, end);
}

}  // namespace host::ffmpeg
