// The files of a running wall: its wall file, which is reloaded and saved, and the layouts beside
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
      needsRestart;  // a sentence for each change of the file that only a restart makes
};

// running: the wall as its file had it when it was last read. Channels are compared by name: one
// whose section did not change stays as it is, with the operators' changes. Throws CommandError
// when the channels of the file do not fit into the slots.
Reloaded Reload(const WallState& state, const config::Wall& running, const config::Wall& file);

// The state as a wall file can describe it: channels in order with their own windows, and the
// layout (also while a channel is shown alone). Everything else is as in file.
config::Wall WallOf(const WallState& state, config::Wall file);

// What an operator wrote stays where it is, comments and order included: only values that differ
// are replaced, keys and channels added and removed. The file is replaced atomically
// (os::ReplaceFile), after the new text has been read back. known: the wall as it was last read
// from the file; a file whose channels have been changed since is not overwritten. Returns the wall
// that the file now describes. Throws CommandError.
config::Wall WriteWallFile(const std::filesystem::path& file, const config::Wall& known,
                           const WallState& state);

// The layouts that operators saved, in "wall.layouts.toml" for "wall.toml": sections [layout.NAME],
// as in a wall file. Application's thread.
class LayoutBook {
 public:
  explicit LayoutBook(const std::filesystem::path& wallFile);

  // Empty when there is no file yet. Throws CommandError when it cannot be read or has a mistake.
  std::map<std::string, config::Layout> Read(const config::Canvas& canvas) const;
  // Atomically: written beside the file, flushed to the disk and renamed. Throws CommandError.
  void Write(const std::map<std::string, config::Layout>& layouts) const;

  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
};

}  // namespace host::control
