#include "host/control/wall_file_writer.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/config/wall_file.h"
#include "host/control/command.h"
#include "platform/os/error_numbers.h"
#include "platform/os/files.h"

namespace host::control {
namespace {

using Kind = CommandError::Kind;

// Of walls that place their windows themselves the channels only.
bool HasSameChannels(const config::Wall& a, const config::Wall& b) {
  return a.placesWindows == b.placesWindows && a.layout == b.layout &&
         std::equal(a.channels.begin(), a.channels.end(), b.channels.begin(), b.channels.end(),
                    [&](config::Channel one, const config::Channel& other) {
                      one.window = a.placesWindows ? other.window : one.window;
                      return one == other;
                    });
}

}  // namespace

config::Wall WallOf(const WallState& state, config::Wall file) {
  WallState plain = state;
  plain.solo.clear();
  try {
    plain.PlaceWindows();
  } catch (const CommandError&) {
    // No room: the windows are as they are.
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

}  // namespace host::control
