// The readers of the single sections of a wall file; used by ReadWall only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/config/layout.h"
#include "host/config/table_reader.h"
#include "host/config/wall.h"

namespace host::config {

// Relative paths in a wall file start at its own folder.
struct FileContext {
  std::filesystem::path folder;
  bool complete = true;  // false: what is missing may be in a line with a mistake
};

// A URL as it is, a path joined to the folder of the wall file.
std::string ResolveSource(const std::string& source, const FileContext& context);
std::filesystem::path ResolvePath(const std::string& path, const FileContext& context);

// Frames per second, and the bits per second of "bitrate"; none when they are not given or wrong.
std::optional<Ratio> ReadFrameRate(TableReader& reader, const char* key);
std::optional<std::int64_t> ReadBitRate(TableReader& reader);

// [wall]
void ReadCanvas(TableReader& reader, const FileContext& context, Wall& wall);

// [defaults] and what a channel shares with it.
void ReadChannelOptions(TableReader& reader, ChannelOptions& options);

// [[channel]], or the keys of one that change. The window is set when it is given; everything else
// that is not given is as in base, whose source may be empty for a new channel.
struct ChannelEntry {
  Channel channel;
  std::optional<Window> window;
  Position position;        // of the channel
  Position windowPosition;  // of its window
  Position namePosition;
  bool named = false;  // by the file
};
ChannelEntry ReadChannel(TableReader& reader, const FileContext& context, Channel base);

// [layout.NAME], each with its windows and, if some places belong to certain channels, their names.
std::vector<Layout> ReadLayouts(TableReader& root, const Canvas& canvas);

// [log]
void ReadLog(TableReader& reader, const FileContext& context, LogOptions& log);

// [http]
void ReadHttp(TableReader& reader, const FileContext& context, const Canvas& canvas, Http& http);

inline constexpr int kMaxTallyIndex = 65534;

// [control] and [tally]
void ReadControl(TableReader& reader, const FileContext& context, ControlOptions& control);
// The wall's channels, which displays refer to, have been read.
void ReadTally(TableReader& reader, Wall& wall);

// [[output]]
Output ReadOutput(TableReader& reader, const FileContext& context);
// [[output]] whose url is a screen.
bool IsScreen(const toml::table& output);
Screen ReadScreen(TableReader& reader);

}  // namespace host::config
