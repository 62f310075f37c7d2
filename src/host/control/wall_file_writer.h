// Writes the state of a running wall into its wall file.
#pragma once

#include <filesystem>

#include "host/control/wall_state.h"

namespace host::control {

// What an operator wrote stays where it is, comments and order included: only values that differ
// are replaced, keys and channels added and removed. Whole or not at all (os::ReplaceFile); what is
// written is read again before it takes the place of the file. Throws CommandError.
void WriteWallFile(const std::filesystem::path& file, const WallState& state);

}  // namespace host::control
