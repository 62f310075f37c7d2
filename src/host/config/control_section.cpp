#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "host/config/sections.h"
#include "host/config/url.h"
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

// It may be added while the wall runs.
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

}  // namespace host::config
