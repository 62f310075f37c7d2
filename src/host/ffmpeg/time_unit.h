// FFmpeg's time stamps and ours.
#pragma once

#include <optional>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
#include <libavutil/rational.h>
}

#include "host/units.h"

namespace host::ffmpeg {

// The host's unit of time, 100 ns, in FFmpeg's notation.
inline constexpr AVRational kTimeUnit = {1, static_cast<int>(kSecond)};

inline std::optional<Time> ToTime(std::int64_t stamp, AVRational unit) {
  if (stamp == AV_NOPTS_VALUE) {
    return {};
  }
  return av_rescale_q(stamp, unit, kTimeUnit);
}

}  // namespace host::ffmpeg
