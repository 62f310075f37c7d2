// FFmpeg's timestamps and ours.
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

// Over a hundred years: timestamps beyond are damaged. Sums and differences of valid ones stay far
// within 64 bits.
inline constexpr Time kMaxTimestamp = Time{1} << 55;
inline constexpr Time kMaxDuration = 3600 * kSecond;

// None if there is no timestamp, or a damaged one.
inline std::optional<Time> ToTime(std::int64_t timestamp, AVRational unit) {
  if (timestamp == AV_NOPTS_VALUE) {
    return {};
  }
  const Time time = av_rescale_q(timestamp, unit, kTimeUnit);
  return time >= -kMaxTimestamp && time <= kMaxTimestamp ? std::optional(time) : std::nullopt;
}
// 0 if there is no duration, or a damaged one.
inline Time ToDuration(std::int64_t duration, AVRational unit) {
  const Time time = duration > 0 ? av_rescale_q(duration, unit, kTimeUnit) : 0;
  return time > 0 && time <= kMaxDuration ? time : 0;
}

}  // namespace host::ffmpeg
