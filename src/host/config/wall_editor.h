// Writes channels and layout of a wall into the text of its wall file.
#pragma once

#include <filesystem>
#include <string>

#include "host/config/wall.h"

namespace host::config {

// The text of a wall file without mistakes so that its channels are those of the wall, in their
// order, and its layout is the wall's; everything else stays, and what says the same already is
// copied byte for byte. Channels are identified by name, a renamed one by its source. Without
// windows when the wall places them itself.
//
// folder: of the file. Throws std::runtime_error when the text cannot be edited so that it says
// just that: it has mistakes, or is written in a form that has no place for the change.
std::string EditWall(const std::string& text, const std::filesystem::path& folder,
                     const Wall& wall);

}  // namespace host::config
