// Which compressed audio goes through the composer as it is.
#pragma once

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace host {

// AAC, MPEG audio, AC-3 and E-AC-3 pass through untouched; everything else is encoded to AAC for
// the outputs.
inline bool PassesThrough(AVCodecID codec) {
  switch (codec) {
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_MP1:
    case AV_CODEC_ID_MP2:
    case AV_CODEC_ID_MP3:
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3:
      return true;
    default:
      return false;
  }
}

}  // namespace host
