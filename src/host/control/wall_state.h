// WallState: everything of a running wall that can be changed, as a plain value.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/config/wall.h"
#include "host/units.h"

namespace host::control {

using config::Mute;
const char* NameOf(Mute mute);  // "off", "silence", "nothing"

struct Acknowledgement {
  std::string who;
  std::string note;
  std::chrono::system_clock::time_point at;
  bool operator==(const Acknowledgement&) const = default;
};

// A channel of the wall and the slot that it fills.
struct ChannelEntry {
  config::Channel settings;   // its window is where the current layout shows it
  config::Window fileWindow;  // its own, for the layout "file"
  bool isPlaced = true;       // the layout has a place for it
  Mute mute = Mute::kOff;
  std::uint64_t reconnects = 0;  // how often it was asked to open its source again
  std::optional<std::chrono::system_clock::time_point> maskedUntil{};              // its alarms are
  std::array<std::optional<Acknowledgement>, config::kAlarmKinds> acknowledged{};  // by AlarmKind

  // An operator sees it: enabled, and placed by the layout.
  bool isShown() const { return settings.options.enabled && isPlaced; }
  bool operator==(const ChannelEntry&) const = default;
};

// Slots are the composer's inputs and the outputs' tracks; their number never changes. Copied for
// each command, which changes the copy.
struct WallState {
  config::Canvas canvas;
  config::LayoutRules rules;
  config::ChannelOptions defaults;  // of channels that are added
  std::vector<std::optional<ChannelEntry>> slots;
  std::vector<std::size_t> order;  // the slots in use, in the order in which layouts are filled
  std::map<std::string, config::Layout> layouts;  // that can be applied besides the built-in ones
  std::map<std::string, config::Layout> saved;    // of those, the ones in the layout book
  std::string layout = "auto";
  std::string solo;    // name of the channel that is shown alone; empty: none
  std::string follow;  // name of the channel whose audio the follow track carries; empty: none
  std::uint64_t version = 1;

  // The state at the start, as the wall file has it.
  static WallState Of(const config::Wall& wall);

  bool operator==(const WallState&) const = default;

  // Null when no channel has the name.
  ChannelEntry* Find(const std::string& name);
  const ChannelEntry* Find(const std::string& name) const;
  std::optional<std::size_t> SlotOf(const std::string& name) const;
  std::vector<std::string> ChannelNames() const;  // in order
  std::vector<std::string> LayoutNames() const;   // all that can be applied
  // Gives every channel its window by the current layout and solo. Throws CommandError when the
  // canvas has no room for the layout, and leaves the windows as they are.
  void PlaceWindows();
};

// All of it as the API gives it: version, canvas, layout, layouts, solo, follow, channels in order.
nlohmann::ordered_json ToJson(const WallState& state);
nlohmann::ordered_json ToJson(const ChannelEntry& entry);

}  // namespace host::control
