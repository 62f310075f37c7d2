// `tavrel probe SOURCE`
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/picture/wide_colour.h"
#include "host/channel/source/media_info.h"
#include "host/cli/program.h"
#include "host/units.h"

namespace host::cli {

struct ProbeOptions {
  std::string source;
  std::string frameRate = "25";  // of the canvas that the source would be shown on
  double limit = 10;             // seconds for opening
  bool json = false;
};

void DefineProbe(CLI::App& app, ProbeOptions& options);

// Opens the source, decodes its beginning, and prints what it carries and what a wall does with it.
ExitCode Probe(const ProbeOptions& options, Streams& streams);

// What the beginning of a source showed.
struct ProbeReport {
  MediaInfo info;
  int pictures = 0;
  bool interlaced = false;
  bool topFieldFirst = false;
  int width = 0;  // of the decoded pictures
  int height = 0;
  std::string colourSpace;
  std::string colourRange;
  std::string colourPrimaries;
  std::string colourTransfer;
  std::optional<WideColour> wideColour;
  Orientation orientation;
  bool passesThrough = false;  // the sound, as it is
  double loudest = 0;          // greatest sample of the beginning, of full scale
  std::uint64_t damagedPackets = 0;
};

// What a wall does with such a source, a sentence for each thing that differs from showing it as it
// is.
std::vector<std::string> WallTreatment(const ProbeReport& report, Ratio canvasRate);

}  // namespace host::cli
