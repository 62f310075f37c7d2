#include "host/control/wall_state.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "host/config/layout.h"
#include "host/control/command.h"
#include "host/ffmpeg/mask.h"
#include "util/time_text.h"

namespace host::control {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kAuto = "auto";
constexpr const char* kFile = "file";

bool HasLabels(const WallState& state) {
  return std::any_of(state.order.begin(), state.order.end(), [&](std::size_t slot) {
    return state.slots[slot]->settings.label.source != config::Label::Source::kNone;
  });
}

// The places of the current layout; for "file", one for each channel by its name.
std::vector<config::Layout::Place> PlacesOf(const WallState& state) {
  std::vector<config::Layout::Place> places;
  if (state.layout == kFile) {
    for (const std::size_t slot : state.order) {
      const ChannelEntry& entry = *state.slots[slot];
      if (entry.fileWindow.width > 0) {
        places.push_back({entry.fileWindow, entry.settings.name});
      }
    }
    return places;
  }
  const auto own = state.layouts.find(state.layout);
  if (own != state.layouts.end()) {
    return own->second.places;
  }
  const auto windows =
      state.layout == kAuto
          ? config::LayOutWindows(state.canvas, state.rules,
                                  std::max<std::size_t>(state.order.size(), 1), HasLabels(state))
          : config::BuiltInPlaces(state.layout, state.canvas, state.rules, HasLabels(state));
  if (!windows) {
    throw CommandError(CommandError::Kind::kConflict,
                       "the canvas has no room for the layout \"" + state.layout + "\" with " +
                           std::to_string(state.order.size()) + " channels");
  }
  for (const config::Window& window : *windows) {
    places.push_back({window, {}});
  }
  return places;
}

Json WindowJson(const config::Window& window) {
  return Json::array({window.x, window.y, window.width, window.height});
}

}  // namespace

const char* NameOf(Mute mute) {
  switch (mute) {
    case Mute::kOff:
      return "off";
    case Mute::kSilence:
      return "silence";
    case Mute::kNothing:
      return "nothing";
  }
  return "";
}

WallState WallState::Of(const config::Wall& wall) {
  WallState state;
  state.canvas = wall.canvas;
  state.rules = wall.rules;
  state.defaults = wall.defaults;
  state.layout = wall.placesWindows ? kAuto : kFile;
  for (const config::Channel& channel : wall.channels) {
    state.order.push_back(state.slots.size());
    ChannelEntry entry;
    entry.settings = channel;
    entry.fileWindow = wall.placesWindows ? config::Window{} : channel.window;
    state.slots.push_back(std::move(entry));
  }
  state.slots.resize(state.slots.size() + static_cast<std::size_t>(wall.spare));
  for (const config::Layout& layout : wall.layouts) {
    state.layouts[layout.name] = layout;
  }
  return state;
}

std::optional<std::size_t> WallState::SlotOf(const std::string& name) const {
  for (std::size_t slot = 0; slot < slots.size(); ++slot) {
    if (slots[slot] && slots[slot]->settings.name == name) {
      return slot;
    }
  }
  return std::nullopt;
}

const ChannelEntry* WallState::Find(const std::string& name) const {
  const std::optional<std::size_t> slot = SlotOf(name);
  return slot ? &*slots[*slot] : nullptr;
}

ChannelEntry* WallState::Find(const std::string& name) {
  return const_cast<ChannelEntry*>(std::as_const(*this).Find(name));
}

std::vector<std::string> WallState::ChannelNames() const {
  std::vector<std::string> names;
  for (const std::size_t slot : order) {
    names.push_back(slots[slot]->settings.name);
  }
  return names;
}

std::vector<std::string> WallState::LayoutNames() const {
  std::vector<std::string> names{kAuto};
  const bool hasFile = std::any_of(slots.begin(), slots.end(), [](const auto& entry) {
    return entry && entry->fileWindow.width > 0;
  });
  if (hasFile) {
    names.emplace_back(kFile);
  }
  for (const auto& [name, own] : layouts) {
    names.push_back(name);
  }
  const std::vector<std::string>& builtIn = config::BuiltInLayouts();
  names.insert(names.end(), builtIn.begin(), builtIn.end());
  return names;
}

void WallState::PlaceWindows() {
  if (const ChannelEntry* const alone = Find(solo)) {
    const config::Window window = config::SoloWindow(canvas, rules, false);
    for (std::optional<ChannelEntry>& entry : slots) {
      if (entry) {
        entry->isPlaced = &*entry == alone;
        entry->settings.window = entry->isPlaced ? window : entry->settings.window;
      }
    }
    return;
  }
  std::vector<config::Layout::Place> places = PlacesOf(*this);
  std::vector<std::optional<config::Window>> windows(slots.size());
  for (config::Layout::Place& place : places) {
    const std::optional<std::size_t> slot =
        place.channel.empty() ? std::nullopt : SlotOf(place.channel);
    if (slot && !windows[*slot]) {
      windows[*slot] = place.window;
      place.window = {};  // taken
    }
  }
  // A place whose channel does not exist is filled in order, like all others.
  auto place = places.begin();
  for (const std::size_t slot : order) {
    place =
        std::find_if(place, places.end(), [](const auto& free) { return free.window.width > 0; });
    if (!windows[slot] && place != places.end()) {
      windows[slot] = place->window;
      ++place;
    }
  }
  for (const std::size_t slot : order) {
    ChannelEntry& entry = *slots[slot];
    entry.isPlaced = windows[slot].has_value();
    // A channel without a place keeps its size: it can be shown again at no cost.
    entry.settings.window = windows[slot].value_or(entry.settings.window);
  }
}

Json ToJson(const ChannelEntry& entry) {
  const config::Channel& channel = entry.settings;
  Json json;
  json["name"] = channel.name;
  json["source"] = ffmpeg::MaskUrl(channel.source);
  switch (channel.label.source) {
    case config::Label::Source::kNone:
      json["label"] = "";
      break;
    case config::Label::Source::kText:
      json["label"] = channel.label.text;
      break;
    case config::Label::Source::kFile:
      json["label_file"] = channel.label.file.string();
      break;
    case config::Label::Source::kService:
      json["label_service"] = true;
      break;
  }
  json["colour"] = channel.options.colour;
  json["window"] = WindowJson(channel.window);
  json["shown"] = entry.isShown();
  json["enabled"] = channel.options.enabled;
  json["selected"] = channel.selected;
  json["mute"] = NameOf(entry.mute);
  json["decode"] = NameOf(channel.options.decode);
  if (entry.maskedUntil) {
    json["masked_until"] = qorp::TimestampUtc(*entry.maskedUntil);
  }
  Json acknowledged = Json::object();
  for (const config::AlarmKind kind : config::kAllAlarms) {
    if (const auto& one = entry.acknowledged[static_cast<std::size_t>(kind)]) {
      acknowledged[NameOf(kind)] = {
          {"who", one->who}, {"note", one->note}, {"at", qorp::TimestampUtc(one->at)}};
    }
  }
  json["acknowledged"] = std::move(acknowledged);
  return json;
}

Json ToJson(const WallState& state) {
  Json json;
  json["version"] = state.version;
  json["canvas"] = {{"width", state.canvas.width},
                    {"height", state.canvas.height},
                    {"frame_rate", state.canvas.frameRate.value()}};
  json["layout"] = state.layout;
  json["layouts"] = state.LayoutNames();
  json["solo"] = state.solo.empty() ? Json() : Json(state.solo);
  json["follow"] = state.follow.empty() ? Json() : Json(state.follow);
  json["spare"] = state.slots.size() - state.order.size();
  json["channels"] = Json::array();
  for (const std::size_t slot : state.order) {
    json["channels"].push_back(ToJson(*state.slots[slot]));
  }
  return json;
}

}  // namespace host::control
