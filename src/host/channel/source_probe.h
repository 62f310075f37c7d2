// Examines the beginning of a source.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/channel/source/media_reader.h"
#include "host/channel/video/colour.h"

namespace host {

// What the beginning of a source showed.
struct ProbeReport {
  MediaInfo info;
  int frames = 0;
  bool interlaced = false;
  bool topFieldFirst = false;
  int width = 0;  // of the decoded frames
  int height = 0;
  std::string colourSpace;
  std::string colourRange;
  std::string colourPrimaries;
  std::string colourTransfer;
  std::optional<WideColour> wideColour;
  Orientation orientation;
  bool passesThrough = false;  // the audio, unchanged
  double loudest = 0;          // greatest magnitude of a sample, full scale at 1
  std::uint64_t damagedPackets = 0;
};

// Decodes the beginning of an open source, at most two seconds. Throws MediaError.
ProbeReport Examine(MediaReader& reader);

}  // namespace host
