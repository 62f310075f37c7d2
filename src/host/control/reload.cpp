#include "host/control/reload.h"

#include <algorithm>
#include <utility>

#include "host/control/command.h"

namespace host::control {
namespace {

const config::Channel* Find(const config::Wall& wall, const std::string& name) {
  const auto found =
      std::find_if(wall.channels.begin(), wall.channels.end(),
                   [&](const config::Channel& channel) { return channel.name == name; });
  return found == wall.channels.end() ? nullptr : &*found;
}

std::vector<std::string> NeedsRestart(const config::Wall& running, const config::Wall& file) {
  std::vector<std::string> needs;
  const auto compare = [&](bool isSame, const char* what) {
    if (!isSame) {
      needs.emplace_back(std::string(what) + " changes with the next start");
    }
  };
  const config::Canvas& a = running.canvas;
  const config::Canvas& b = file.canvas;
  compare(a.width == b.width && a.height == b.height, "the size of the canvas");
  compare(a.frameRate == b.frameRate, "the frame rate");
  compare(a.aspect == b.aspect, "the shape of the canvas");
  compare(a.background == b.background, "the background");
  compare(a.clockOffset == b.clockOffset && a.preroll == b.preroll, "the clock");
  compare(a.delay == b.delay, "the delay");
  compare(running.spare == file.spare, "the number of spare channels");
  compare(running.outputs == file.outputs && running.screens == file.screens, "the outputs");
  compare(running.log == file.log, "the log");
  compare(running.http == file.http, "the HTTP server");
  compare(running.control == file.control, "the control socket");
  compare(running.tally == file.tally, "the tally input");
  compare(running.follow == file.follow, "the track that follows a channel");
  return needs;
}

}  // namespace

Reloaded Reload(const WallState& state, const config::Wall& running, const config::Wall& file) {
  Reloaded reloaded{state, {}, NeedsRestart(running, file)};
  WallState& next = reloaded.state;
  const bool hasSameCanvas =
      running.canvas.width == file.canvas.width && running.canvas.height == file.canvas.height;
  for (std::optional<ChannelEntry>& entry : next.slots) {
    if (entry && Find(running, entry->settings.name) != nullptr &&
        Find(file, entry->settings.name) == nullptr) {
      reloaded.changed.push_back(entry->settings.name);
      std::erase(next.order, static_cast<std::size_t>(&entry - next.slots.data()));
      entry.reset();
    }
  }
  std::vector<std::size_t> order;
  for (const config::Channel& channel : file.channels) {
    const config::Channel* const before = Find(running, channel.name);
    std::optional<std::size_t> slot = next.SlotOf(channel.name);
    const bool isSame = slot && before != nullptr && *before == channel;
    if (!slot) {
      const auto free = std::find_if(next.slots.begin(), next.slots.end(),
                                     [](const auto& one) { return !one.has_value(); });
      if (free == next.slots.end()) {
        throw CommandError(CommandError::Kind::kConflict,
                           "the wall has " + std::to_string(next.slots.size()) +
                               " slots, and no free one for the channel \"" + channel.name +
                               "\"; \"spare\" in [wall] makes room for more at the next start");
      }
      free->emplace();
      slot = static_cast<std::size_t>(free - next.slots.begin());
    }
    order.push_back(*slot);
    if (isSame) {
      continue;
    }
    reloaded.changed.push_back(channel.name);
    ChannelEntry& entry = *next.slots[*slot];
    const config::Window window = entry.settings.window;
    entry.settings = channel;
    if (hasSameCanvas && !file.placesWindows) {
      entry.fileWindow = channel.window;
    }
    entry.settings.window = window.width > 0 ? window : channel.window;
  }
  // Channels that were added while the wall was running follow.
  for (const std::size_t slot : next.order) {
    if (std::find(order.begin(), order.end(), slot) == order.end()) {
      order.push_back(slot);
    }
  }
  next.order = std::move(order);
  next.rules = file.rules;
  next.defaults = file.defaults;
  next.layouts = next.saved;
  for (const config::Layout& layout : file.layouts) {
    next.layouts[layout.name] = layout;
  }
  next.layout = running.layout != file.layout && !file.layout.empty() ? file.layout : next.layout;
  const std::vector<std::string> layouts = next.LayoutNames();
  if (running.placesWindows != file.placesWindows ||
      std::find(layouts.begin(), layouts.end(), next.layout) == layouts.end()) {
    next.layout = file.placesWindows ? "auto" : "file";
  }
  next.solo = next.Find(next.solo) == nullptr ? "" : next.solo;
  next.follow = next.Find(next.follow) == nullptr ? "" : next.follow;
  next.PlaceWindows();
  return reloaded;
}

}  // namespace host::control
