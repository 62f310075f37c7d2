#include "host/session/source_sharing.h"

#include <charconv>
#include <map>
#include <optional>
#include <string_view>

#include "host/channel/source/shared_input.h"
#include "host/channel/source/source_address.h"
#include "host/config/url.h"
#include "host/ffmpeg/inputs.h"

namespace host {
namespace {

// The port or pipe that a channel opens for its source.
struct Taken {
  enum class Kind { kNothing, kDatagrams, kListener, kPipe };
  Kind kind = Kind::kNothing;
  std::string what;       // port or pipe
  bool isReused = false;  // others may take the same port
  std::string local;      // address of this machine; empty: all
  ReceiverAddress
      shared;  // channels with equal ones share the connection; empty: it cannot be shared
  std::optional<SharedInputs::Key> input;  // channels with equal ones share the demuxer
};

bool IsMulticast(std::string_view host) {
  constexpr int kFirst = 224;
  constexpr int kLast = 239;
  int first = 0;
  const auto [end, error] = std::from_chars(host.data(), host.data() + host.size(), first);
  const bool isNumber = error == std::errc() && end != host.data() + host.size() && *end == '.';
  return (isNumber && first >= kFirst && first <= kLast) ||
         (host.starts_with("ff") && host.find(':') != std::string_view::npos);
}

Taken TakenBy(const config::Channel& channel) {
  Taken taken;
  const bool hasProgram = channel.program.isGiven();
  MediaSettings settings;
  settings.source = channel.source;
  settings.options = channel.options;
  settings.program = channel.program;
  if (SharedInputs::Serves(settings)) {
    taken.input = SharedInputs::KeyOf(settings);
  }
  if (ffmpeg::PipeInput::Serves(channel.source)) {
    taken.kind = Taken::Kind::kPipe;
    taken.what = channel.source;
    taken.shared.url = hasProgram ? channel.source : "";
    return taken;
  }
  const std::optional<config::Url> url = config::ParseUrl(channel.source);
  if (!url || config::LocalPath(channel.source)) {
    return taken;
  }
  const SourceAddress address(channel.source);
  std::map<std::string, std::string> options = url->query;
  options.insert(channel.options.options.begin(), channel.options.options.end());
  const auto option = [&](const char* key) {
    const auto found = options.find(key);
    return found != options.end() ? found->second : std::string();
  };
  if (address.isShareable(hasProgram)) {
    taken.shared = address.Receiver(channel.options.options);
  }
  // Without a port it is that of RTMP.
  taken.what = url->port.empty() ? "1935" : url->port;
  if (address.isDatagrams()) {
    const bool hasOtherPort = options.contains("localport") || options.contains("localrtpport");
    taken.kind = hasOtherPort ? Taken::Kind::kNothing : Taken::Kind::kDatagrams;
    taken.isReused = option("reuse") == "1" || (IsMulticast(url->host) && option("reuse") != "0");
    taken.local = option("localaddr");
  } else if (config::Listens(*url, options)) {
    taken.kind = Taken::Kind::kListener;
    taken.what += url->scheme == "srt" ? "/udp" : "";
  }
  return taken;
}

std::optional<std::string> MistakeOf(const Taken& first, const Taken& second,
                                     const std::string& name) {
  if (first.kind == Taken::Kind::kNothing || first.kind != second.kind ||
      first.what != second.what || (!first.shared.url.empty() && first.shared == second.shared) ||
      (first.input && first.input == second.input)) {
    return std::nullopt;
  }
  const std::string other = "channel \"" + name + "\"";
  switch (first.kind) {
    case Taken::Kind::kPipe:
      return "is a pipe that " + other +
             " reads in another way; channels share one when their options are the same and each "
             "or none has a \"program\"";
    case Taken::Kind::kListener:
      return "waits for its sender at the port of " + other +
             "; channels share a sender when their URL and options are the same";
    default:
      break;
  }
  if ((first.isReused && second.isReused) ||
      (first.local != second.local && !first.local.empty() && !second.local.empty())) {
    return std::nullopt;
  }
  return "takes the port of " + other +
         " in another way; channels share a port when their URL and options are the same";
}

}  // namespace

std::vector<SharingMistake> FindSharingMistakes(const config::Wall& wall) {
  std::vector<SharingMistake> mistakes;
  std::vector<Taken> taken;
  for (const config::Channel& channel : wall.channels) {
    taken.push_back(TakenBy(channel));
    for (std::size_t i = 0; i + 1 < taken.size(); ++i) {
      if (auto what = MistakeOf(taken[i], taken.back(), wall.channels[i].name)) {
        mistakes.push_back({taken.size() - 1, std::move(*what)});
        break;
      }
    }
  }
  return mistakes;
}

}  // namespace host
