// Frames with more colours or more brightness than the wall has.
#pragma once

#include <optional>
#include <string>

#include "host/channel/video/frame_fit.h"

struct AVFrame;

namespace host {

// What a frame's wide colours are, by FFmpeg's numbers (AVCOL_...), with what is left unsaid
// filled in.
struct WideColour {
  int primaries = 0;
  int transfer = 0;
  int matrix = 0;  // of frames in red, green and blue: that they are
  bool fullRange = false;
  int peak = 0;  // of high dynamic range: brightest cd/m2, in hundreds; otherwise 0

  bool isHdr() const { return peak > 0; }
  bool operator==(const WideColour&) const = default;
};

// Of high dynamic range (PQ, HLG), and of primaries wider than those of BT.709 (BT.2020, P3). None
// for everything else. The peak is what the frame says of its content or, of that, its mastering
// display; 1000 cd/m2 when it says nothing.
std::optional<WideColour> WideColourOf(const AVFrame& frame);

// For people: "PQ, BT.2020", "BT.2020".
std::string NameOf(const WideColour& colour);

// A chain of filters in FFmpeg's notation that scales such frames into the rectangle and makes
// them 8-bit 4:2:0 of BT.709's primaries and transfer in BT.601 studio range, as all of the wall's.
//
// Brightness of high dynamic range is display light, with the white of graphics (203 cd/m2) as the
// wall's. Half of that and all below stay as they are, what is brighter is compressed smoothly, so
// that the peak becomes white and the white of graphics nine tenths of the signal, whatever the
// peak: for 1000 cd/m2 that is within 5 of 219 steps of the curve of BT.2390. All three colours of
// a pixel are scaled alike, which keeps its hue; colours that BT.709 has not are clipped.
std::string ConversionOf(const WideColour& colour, const FitRect& fit);

}  // namespace host
