// Mistakes in a wall that only FFmpeg, the rules of the network and the file system reveal, and
// files that it reads and writes at the same time (WallFiles).
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/config/wall_file.h"

namespace host {

// One mistake, or a note, about a key of an output or a channel.
struct Finding {
  config::Diagnostic::Severity severity = config::Diagnostic::Severity::kError;
  std::string key;   // "url", "options.mode"
  std::string what;  // what follows the key in a sentence: "has no port: ..."
};

// Check addresses, containers, codecs and options without opening anything.
std::vector<Finding> CheckOutput(const config::Output& output);
std::vector<Finding> CheckSource(const config::Channel& channel);

// Adds all findings of the wall file, and the files that are used twice, to its diagnostics, which
// are in the order of the file then. path: of the wall file.
void CheckWall(config::WallFile& file, const std::filesystem::path& path);
// Starts every encoder once, which takes a moment each: those that are not available are errors.
void CheckEncoders(config::WallFile& file);

// Knows everything that a run opens and finds what is written and at the same time used otherwise.
// A file is the same under every spelling and through symbolic and hard links; an address under
// every spelling, and where two would take the same port. Looks at the file system, opens nothing.
// One thread.
class WallFiles {
 public:
  struct Use {
    std::string what;    // "output 1", "the source of channel \"A\"", "--log-file"
    std::string target;  // a path, a URL or a stream of the process
    std::optional<config::Position> place;       // in the wall file; none: not named there
    std::map<std::string, std::string> options;  // of the protocol
    std::vector<std::string> beside;  // names with "*" of further files in the same folder
  };
  // written is the same file or address as other.
  struct Clash {
    Use written;
    Use other;
  };

  void Reads(Use use);
  void Writes(Use use);

  // Each pair once.
  std::vector<Clash> Clashes() const;

 private:
  std::vector<Use> read_;
  std::vector<Use> written_;
};

// What a run is given besides its wall.
struct RunFiles {
  std::filesystem::path wallFile;       // empty: none
  std::vector<config::Output> outputs;  // those that are written
  bool outputsAreArguments = false;     // ... and not those of the wall file
  config::LogOptions log;               // what is used
  config::LogOptions logArguments;      // ... of which these are arguments
  std::filesystem::path snapshot;       // empty: none
  std::filesystem::path library;        // of the composer; empty: not named
};
WallFiles FilesOf(const config::Wall& wall, const RunFiles& run);

// "output 1 (\"rec/a.mkv\") is the same file as the source of channel \"A\" (\"a.mkv\",
// wall.toml:5:10)"
std::string ToText(const WallFiles::Clash& clash, const std::filesystem::path& wallFile);

// Names that an HLS output writes beside its playlist, with "*" for numbers.
std::vector<std::string> NamesBeside(const config::Output& output);

}  // namespace host
