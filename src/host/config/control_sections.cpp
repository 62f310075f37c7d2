#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "host/config/sections.h"
#include "host/config/url.h"
#include "host/config/value_text.h"
#include "platform/os/sockets.h"

namespace host::config {
namespace {

constexpr int kTallyBits = 4;

// A text, or a list of texts.
std::vector<const toml::node*> TextNodes(TableReader& reader, const char* key, const char* form) {
  const toml::node* const node = reader.Find(key);
  if (node == nullptr) {
    return {};
  }
  if (node->is_string()) {
    return {node};
  }
  std::vector<const toml::node*> texts;
  const toml::array* const array = node->as_array();
  if (array == nullptr || (!array->empty() && !array->is_homogeneous<std::string>())) {
    reader.Error(key, form);
    return {};
  }
  for (const toml::node& one : *array) {
    texts.push_back(&one);
  }
  return texts;
}

void ReadListen(TableReader& reader, TallyOptions& tally) {
  constexpr const char* kForm =
      "must be \"udp://ADDRESS:PORT\" or \"tcp://ADDRESS:PORT\", or a list of them";
  for (const toml::node* node : TextNodes(reader, "listen", kForm)) {
    const auto url = ParseUrl(*node->value<std::string>());
    const std::optional<int> port = url ? url->portNumber() : std::nullopt;
    if (!port || (url->scheme != "udp" && url->scheme != "tcp") || url->host.empty()) {
      reader.diagnostics().Error(PositionOf(*node), std::string("\"listen\" ") + kForm, "listen");
    } else {
      tally.listen.push_back(
          {url->scheme == "tcp", {url->host, static_cast<std::uint16_t>(*port)}});
    }
  }
}

// Numbers of tally bits.
void ReadBits(TableReader& reader, const char* key, std::vector<int>& bits) {
  const toml::node* const node = reader.Find(key);
  if (node == nullptr) {
    return;
  }
  std::vector<int> given;
  const auto add = [&](const toml::node& one) {
    const std::int64_t bit = one.value_exact<std::int64_t>().value_or(0);
    if (bit >= 1 && bit <= kTallyBits) {
      given.push_back(static_cast<int>(bit));
      return true;
    }
    return false;
  };
  const toml::array* const array = node->as_array();
  const bool isGood =
      array != nullptr ? std::all_of(array->begin(), array->end(), add) : add(*node);
  if (!isGood) {
    reader.Error(key, "must be a tally of version 3.1, 1 to 4, or a list of them");
    return;
  }
  bits = given;
}

// Only warns: the channel may be added while the wall runs.
void CheckChannel(Position position, const std::string& name, const Wall& wall,
                  Diagnostics& diagnostics) {
  std::vector<std::string> known;
  for (const Channel& channel : wall.channels) {
    known.push_back(channel.name);
  }
  if (std::find(known.begin(), known.end(), name) == known.end()) {
    const auto nearest = NearestName(name, known);
    diagnostics.Warning(position,
                        "the file has no channel \"" + name + "\"" +
                            (nearest ? "; did you mean \"" + *nearest + "\"?" : ""),
                        "display");
  }
}

void ReadDisplays(TableReader& reader, Wall& wall) {
  const toml::table* const table = reader.Table("display");
  if (table == nullptr) {
    return;
  }
  for (const auto& [key, node] : *table) {
    const std::string_view text = key.str();
    int display = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), display);
    const auto channel = node.value_exact<std::string>();
    if (error != std::errc() || end != text.data() + text.size() || display < 0 ||
        display > kMaxTallyIndex || !channel || channel->empty()) {
      reader.diagnostics().Error(
          PositionOf(node),
          "\"display\" gives display numbers their channels: { 1 = \"Cam 1\", 2 = \"Cam 2\" }",
          "display");
    } else {
      wall.tally.displays[display] = *channel;
      CheckChannel(PositionOf(node), *channel, wall, reader.diagnostics());
    }
  }
}

}  // namespace

void ReadControl(TableReader& reader, const FileContext& context, ControlOptions& control) {
  if (const auto socket = reader.Text("socket")) {
    control.socket = socket->empty() ? std::filesystem::path() : ResolvePath(*socket, context);
  }
  reader.Finish();
}

void ReadTally(TableReader& reader, Wall& wall) {
  TallyOptions& tally = wall.tally;
  ReadListen(reader, tally);
  if (const auto protocol = reader.Choice("protocol", {"auto", "3.1", "4.0", "5.0"})) {
    tally.protocol = static_cast<TallyOptions::Protocol>(*protocol);
  }
  for (const toml::node* node : TextNodes(reader, "senders", "must be a list of addresses")) {
    const std::string sender = *node->value<std::string>();
    if (os::IsNetwork(sender)) {
      tally.senders.push_back(sender);
    } else {
      reader.diagnostics().Error(
          PositionOf(*node), "\"" + sender + "\" is no address and no network such as 10.0.0.0/24",
          "senders");
    }
  }
  ReadDisplays(reader, wall);
  ReadBits(reader, "red", tally.red);
  ReadBits(reader, "green", tally.green);
  tally.text = reader.Boolean("text").value_or(tally.text);
  reader.Finish();
}

namespace {

constexpr std::size_t kMaxHosts = 32;
constexpr int kSmallestPreview = 64;  // pixels
constexpr int kLargestPreview = 3840;

bool IsLoopback(const std::string& host) {
  return host == "::1" || host.starts_with("127.");
}

void ReadFileName(TableReader& reader, const char* key, const FileContext& context,
                  std::filesystem::path& file) {
  const auto name = reader.FilledText(key);
  if (!name) {
    return;
  }
  file = ResolvePath(*name, context);
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(file, ignored)) {
    reader.Error(key, "names no file: " + file.string());
  }
}

void ReadHosts(TableReader& reader, std::vector<std::string>& hosts) {
  constexpr const char* kKey = "hosts";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  const toml::array* const names = node->as_array();
  if (names == nullptr || names->size() > kMaxHosts ||
      (!names->empty() && !names->is_homogeneous<std::string>())) {
    reader.Error(kKey, "must be a list of names such as [\"wall.example\"]");
    return;
  }
  for (const toml::node& name : *names) {
    hosts.push_back(*name.value<std::string>());
    if (hosts.back().empty() || hosts.back().find_first_of("/@ *") != std::string::npos ||
        (hosts.back().find(':') != std::string::npos && !os::IsAddress(hosts.back()))) {
      reader.diagnostics().Error(PositionOf(name),
                                 "must be the name of a host alone, without a scheme or a port");
    }
  }
}

// true, false, or a table with the details.
void ReadPreview(TableReader& reader, const Canvas& canvas, PreviewOptions& preview) {
  constexpr const char* kKey = "preview";
  const toml::node* const node = reader.Find(kKey);
  if (node == nullptr) {
    return;
  }
  if (node->is_boolean()) {
    preview.enabled = *node->value<bool>();
    return;
  }
  const toml::table* const table = node->as_table();
  if (table == nullptr) {
    reader.Error(kKey,
                 "must be true, false or a table such as { size = \"960x540\", rate = 12.5 }");
    return;
  }
  TableReader inner(*table, "\"preview\"", reader.diagnostics());
  if (const auto text = inner.Text("size")) {
    if (const auto size = ParseSize(*text);
        size && std::min(size->first, size->second) >= kSmallestPreview &&
        std::max(size->first, size->second) <= kLargestPreview) {
      std::tie(preview.width, preview.height) = *size;
    } else {
      inner.Error("size", "must be a width and a height in pixels from 64 to 3840: \"960x540\"");
    }
  }
  preview.frameRate = ReadFrameRate(inner, "rate");
  if (preview.frameRate && preview.frameRate->value() > canvas.frameRate.value()) {
    inner.Error("rate", "must not be above the frame rate of the canvas, " +
                            TextOf(canvas.frameRate) + " frames per second");
  }
  preview.bitRate = ReadBitRate(inner).value_or(preview.bitRate);
  inner.Finish();
}

}  // namespace

std::optional<Endpoint> ParseListenAddress(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return {};
  }
  std::string host(text.substr(0, colon));
  const std::string_view digits = text.substr(colon + 1);
  Endpoint endpoint;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), endpoint.port);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    return {};
  }
  const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (isBracketed) {
    host = host.substr(1, host.size() - 2);
  }
  endpoint.host = host == "localhost" ? "127.0.0.1" : host;
  const bool isV6 = endpoint.host.find(':') != std::string::npos;
  // The system takes shorter forms, "127.1", for addresses, too.
  const auto dots = std::count(endpoint.host.begin(), endpoint.host.end(), '.');
  if (!os::IsAddress(endpoint.host) || isV6 != isBracketed || (!isV6 && dots != 3)) {
    return {};
  }
  return endpoint;
}

std::optional<std::pair<std::string, std::string>> HttpMistake(const Http& http) {
  if (http.certificate.empty() != http.key.empty()) {
    return std::pair(http.key.empty() ? "cert" : "key",
                     http.key.empty() ? "needs \"key\" beside it" : "needs \"cert\" beside it");
  }
  if (http.listen && http.tokenFile.empty() && !IsLoopback(http.listen->host)) {
    return std::pair("listen",
                     "is an address that other machines reach, which needs a \"token_file\"; "
                     "without one the wall can be driven at 127.0.0.1 only");
  }
  return {};
}

void ReadHttp(TableReader& reader, const FileContext& context, const Canvas& canvas, Http& http) {
  bool isReadable = true;
  if (const auto listen = reader.Text("listen")) {
    http.listen = ParseListenAddress(*listen);
    if (!http.listen) {
      isReadable = false;
      reader.Error("listen", kListenForm);
    }
  }
  ReadFileName(reader, "token_file", context, http.tokenFile);
  ReadFileName(reader, "cert", context, http.certificate);
  ReadFileName(reader, "key", context, http.key);
  ReadHosts(reader, http.hosts);
  ReadPreview(reader, canvas, http.preview);
  if (const auto mistake = HttpMistake(http); mistake && isReadable && context.complete) {
    reader.Error(mistake->first, mistake->second);
  }
  http.places = reader.AllPlaces();
  reader.Finish();
}

}  // namespace host::config
