// Media types of the host's streams.
#pragma once

#include "host/units.h"
#include "platform/baseclasses/mtype.h"

namespace host {

// YV12 frames with a VIDEOINFOHEADER2. width, height in pixels, even; aspect is the display
// aspect.
CMediaType VideoType(int width, int height, Ratio frameRate, Ratio aspect);
// The three side streams of a channel.
CMediaType LabelType();
CMediaType AudioAlarmType();
CMediaType VideoAlarmType();

// Bytes of a packed YV12 frame.
constexpr LONG FrameBytes(int width, int height) {
  return width * height / 2 * 3;
}

}  // namespace host
