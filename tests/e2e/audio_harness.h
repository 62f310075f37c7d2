// Clips that flash and click at the same moments, and the finding of both in what was recorded.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "host/channel/source/media_info.h"
#include "host/units.h"

namespace e2e {

struct FlashClip {
  std::string rate = "25";    // pictures per second, "30000/1001"
  std::string codec = "aac";  // of the audio
  std::string sampleRate = "48000";
  int flashEvery = 25;  // pictures; the third fifth of each time is a flash and a click
  int pictures = 150;
  int size = 32;  // pixels, both ways
  std::string language;
};

// Writes it; the name of the file decides about the container.
void WriteFlashClip(const FlashClip& clip, const std::filesystem::path& file);

// Writes the packets of a file again, the audio `later` behind the video of the same time in the
// order of the mux (or, negative, before it); the timestamps stay. The name of the file decides
// about the container.
void RemuxWithAudioLater(const std::filesystem::path& from, const std::filesystem::path& to,
                         host::Time later);

// The compressed packets of a track of audio, counted from 1; times from the start of the file.
std::vector<host::AudioPacket> ReadPackets(const std::filesystem::path& file, std::size_t track);
// Moments at which the picture becomes bright around each of the points.
struct Point {
  int x = 0;
  int y = 0;
};
std::vector<std::vector<host::Time>> FindFlashes(const std::filesystem::path& file,
                                                 const std::vector<Point>& points);
// Moments at which the audio of a track sets in after silence.
std::vector<host::Time> FindClicks(const std::filesystem::path& file, std::size_t track);

// All packets of a file as they are in it, for each of its streams: time of presentation in units
// of 100 ns, and bytes.
struct RawPacket {
  host::Time time = 0;
  std::string bytes;
};
using Demuxed = std::vector<std::vector<RawPacket>>;
Demuxed Demux(const std::filesystem::path& file);

// What FFmpeg's own program says when it decodes the whole file and stops at the first error; empty
// when it has nothing to say.
std::string DecodeWhole(const std::filesystem::path& file);

}  // namespace e2e
