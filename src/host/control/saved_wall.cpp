#include "host/control/saved_wall.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "host/config/wall_file.h"
#include "host/control/command.h"
#include "platform/os/error_numbers.h"
#include "platform/os/files.h"

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

using Kind = CommandError::Kind;

// Windows that are laid out automatically are not compared.
bool HasSameChannels(const config::Wall& a, const config::Wall& b) {
  return a.placesWindows == b.placesWindows && a.layout == b.layout &&
         std::equal(a.channels.begin(), a.channels.end(), b.channels.begin(), b.channels.end(),
                    [&](config::Channel one, const config::Channel& other) {
                      one.window = a.placesWindows ? other.window : one.window;
                      return one == other;
                    });
}

std::string TextOf(const std::map<std::string, config::Layout>& layouts) {
  std::ostringstream text;
  text << "# Layouts that were saved while the wall was running.\n";
  for (const auto& [name, layout] : layouts) {
    text << "\n[layout.\"" << name << "\"]\nwindows = [\n";
    bool isByName = false;
    for (const config::Layout::Place& place : layout.places) {
      text << "  [" << place.window.x << ", " << place.window.y << ", " << place.window.width
           << ", " << place.window.height << "],\n";
      isByName = isByName || !place.channel.empty();
    }
    text << "]\n";
    if (isByName) {
      text << "channels = [\n";
      for (const config::Layout::Place& place : layout.places) {
        text << "  " << config::QuotedToml(place.channel) << ",\n";
      }
      text << "]\n";
    }
  }
  return text.str();
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

config::Wall WallOf(const WallState& state, config::Wall file) {
  WallState plain = state;
  plain.solo.clear();
  try {
    plain.PlaceWindows();
  } catch (const CommandError&) {
    // No room for the layout: the windows stay as they are.
  }
  file.placesWindows = std::none_of(plain.order.begin(), plain.order.end(), [&](std::size_t slot) {
    return plain.slots[slot]->fileWindow.width > 0;
  });
  file.layout = file.placesWindows && plain.layout == "file" ? "auto" : plain.layout;
  file.channels.clear();
  for (const std::size_t slot : plain.order) {
    const ChannelEntry& entry = *plain.slots[slot];
    config::Channel channel = entry.settings;
    // A wall file gives a window to all channels or to none.
    channel.window = entry.fileWindow.width > 0 ? entry.fileWindow : channel.window;
    file.channels.push_back(std::move(channel));
  }
  return file;
}

config::Wall WriteWallFile(const std::filesystem::path& path, const config::Wall& known,
                           const WallState& state) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) {
    throw CommandError(Kind::kFailed, path.string() + " cannot be read");
  }
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  const config::WallFile file = config::ParseWall(text, path.parent_path());
  if (file.usable() && !HasSameChannels(file.wall, known)) {
    throw CommandError(Kind::kConflict, path.string() +
                                            " was changed since it was read; \"reload\" first, or "
                                            "take the changes back");
  }
  std::string edited;
  try {
    edited = config::EditWall(text, path.parent_path(), WallOf(state, file.wall));
  } catch (const std::runtime_error& error) {
    throw CommandError(Kind::kConflict, path.string() + " cannot be saved: " + error.what());
  }
  if (edited != text) {
    if (const std::uint32_t error = os::ReplaceFile(path, edited); error != 0) {
      throw CommandError(Kind::kFailed,
                         path.string() + " cannot be written: " + os::FileErrorText(error));
    }
  }
  return config::ParseWall(edited, path.parent_path()).wall;
}

LayoutBook::LayoutBook(const std::filesystem::path& wallFile)
    : file_(std::filesystem::path(wallFile).replace_extension(".layouts.toml")) {}

std::map<std::string, config::Layout> LayoutBook::Read(const config::Canvas& canvas) const {
  std::map<std::string, config::Layout> layouts;
  std::error_code ignored;
  if (!std::filesystem::exists(file_, ignored)) {
    return layouts;
  }
  std::ifstream stream(file_, std::ios::binary);
  if (!stream) {
    throw CommandError(CommandError::Kind::kFailed, file_.string() + " cannot be read");
  }
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  const config::LayoutsText book = config::ParseLayouts(text, canvas);
  for (const config::Diagnostic& diagnostic : book.diagnostics.all()) {
    if (diagnostic.severity == config::Diagnostic::Severity::kError) {
      throw CommandError(CommandError::Kind::kFailed, config::ToText(diagnostic, file_.string()));
    }
  }
  for (const config::Layout& layout : book.layouts) {
    layouts[layout.name] = layout;
  }
  return layouts;
}

void LayoutBook::Write(const std::map<std::string, config::Layout>& layouts) const {
  if (const std::uint32_t error = os::ReplaceFile(file_, TextOf(layouts)); error != 0) {
    throw CommandError(CommandError::Kind::kFailed,
                       file_.string() + " cannot be written: " + os::FileErrorText(error));
  }
}

}  // namespace host::control
