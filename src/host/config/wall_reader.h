// Reads a wall file.
#pragma once

#include <filesystem>
#include <string>

#include "host/config/diagnostics.h"
#include "host/config/wall.h"

namespace host::config {

struct WallFile {
  Wall wall;  // of use only without errors
  Diagnostics diagnostics;

  bool usable() const { return !diagnostics.HasErrors(); }
};

// Finds every mistake of the text; relative paths start at the folder. Warnings leave the wall
// usable.
WallFile ParseWall(const std::string& text, const std::filesystem::path& folder);

// The same for a file. A file that cannot be read is an error at its first line.
WallFile ReadWall(const std::filesystem::path& file);

}  // namespace host::config
