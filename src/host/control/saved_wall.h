// What a running wall has on disk: its wall file, read again and written, and the layouts beside
// it.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/control/wall_state.h"

namespace host::control {

struct Reloaded {
  WallState state;
  std::vector<std::string> changed;  // channels, by name: added, removed or with other settings
  std::vector<std::string>
      needsRestart;  // a sentence each: what the file asks for and stays as it is
};

// running: the wall as its file gave it when it was read last. Channels are compared by name: one
// whose section did not change stays as it is, with what operators changed of it. Throws
// CommandError when the channels of the file do not fit into the slots.
Reloaded Reload(const WallState& state, const config::Wall& running, const config::Wall& file);

// The wall that the state is, as a wall file can say it: channels in order with their own windows,
// the layout in force under a channel that is shown alone. Everything else is as in file.
config::Wall WallOf(const WallState& state, config::Wall file);

// What an operator wrote stays where it is, comments and order included: only values that differ
// are replaced, keys and channels added and removed. Whole or not at all (os::ReplaceFile); what is
// written is read again before it takes the place of the file. known: as the file was read last; a
// file whose channels somebody has changed since is not overwritten. Returns the wall that the file
// says now. Throws CommandError.
config::Wall WriteWallFile(const std::filesystem::path& file, const config::Wall& known,
                           const WallState& state);

// The layouts that operators saved, in "wall.layouts.toml" for "wall.toml": sections [layout.NAME],
// as in a wall file. Application's thread.
class LayoutBook {
 public:
  explicit LayoutBook(const std::filesystem::path& wallFile);

  // Empty when there is no file yet. Throws CommandError when it cannot be read or has a mistake.
  std::map<std::string, config::Layout> Read(const config::Canvas& canvas) const;
  // Whole or not at all: written beside the file, flushed to the disk and renamed. Throws
  // CommandError.
  void Write(const std::map<std::string, config::Layout>& layouts) const;

  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
};

}  // namespace host::control
