// What is wrong with a wall that only the media library, the network's rules and the file system
// know.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/config/wall_file.h"

namespace host {

// One mistake, or something to know, about a key of an output or a channel.
struct Finding {
  config::Diagnostic::Severity severity = config::Diagnostic::Severity::kError;
  std::string key;   // "url", "options.mode"
  std::string what;  // what follows the key in a sentence: "has no port: ..."
};

// Addresses, containers, codecs and options by what they say, without opening anything.
std::vector<Finding> CheckOutput(const config::Output& output);
std::vector<Finding> CheckSource(const config::Channel& channel);

// Adds all findings of the wall file, and the files that are used twice, to its diagnostics, which
// are in the order of the file then. path: of the wall file.
void CheckWall(config::WallFile& file, const std::filesystem::path& path);
// Starts every encoder once, which takes a moment each: those that cannot be had are errors.
void CheckEncoders(config::WallFile& file);

}  // namespace host
