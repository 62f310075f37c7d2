// Reads a wall file, and writes channels and layout of a wall back into its text.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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

// A channel for which no key is given; number counts from 1.
Channel NewChannel(std::size_t number, const ChannelOptions& defaults);

// A channel of a running wall, or what changes of it: the keys of a [[channel]] as TOML.
struct ChannelText {
  Channel channel;  // of use only without errors
  std::optional<Window> window;
  bool isNamed = false;
  Diagnostics diagnostics;
};
// What the text does not give is as in base; the source of a new channel is empty there.
ChannelText ParseChannel(const std::string& text, const std::filesystem::path& folder,
                         Channel base);

// Layouts that were saved while a wall was running: sections [layout.NAME], as in a wall file.
struct LayoutsText {
  std::vector<Layout> layouts;
  Diagnostics diagnostics;
};
LayoutsText ParseLayouts(const std::string& text, const Canvas& canvas);

// A text in quotes, as TOML writes it.
std::string QuotedToml(const std::string& text);

// The same as ParseWall for a file. A file that cannot be read is an error at its first line.
WallFile ReadWall(const std::filesystem::path& file);

// The text of a wall file without mistakes so that its channels are those of the wall, in their
// order, and its layout is the wall's; everything else stays, and what needs no change is copied
// byte for byte. Channels are identified by name, a renamed one by its source. Without windows when
// the wall places them itself.
//
// folder: of the file. Throws std::runtime_error when the text cannot be edited so that it says
// just that: it has mistakes, or is written in a form that has no place for the change.
std::string EditWall(const std::string& text, const std::filesystem::path& folder,
                     const Wall& wall);

}  // namespace host::config
