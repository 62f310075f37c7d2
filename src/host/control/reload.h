// What a wall file that was changed means for the running wall.
#pragma once

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

}  // namespace host::control
