// Writes the state of a running wall into its wall file.
#pragma once

#include <filesystem>

#include "host/config/wall.h"
#include "host/control/wall_state.h"

namespace host::control {

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

}  // namespace host::control
