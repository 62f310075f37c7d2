#include "host/channel/audio/sample_planes.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

namespace host {

namespace {

template <typename Sample>
float ToFloat(Sample sample) {
  if constexpr (std::is_floating_point_v<Sample>) {
    return static_cast<float>(sample);
  } else if constexpr (std::is_same_v<Sample, std::uint8_t>) {
    return (static_cast<float>(sample) - 128.0F) / 128.0F;
  } else {
    constexpr auto kFullScale = static_cast<float>(std::uint64_t{1} << (8 * sizeof(Sample) - 1));
    return static_cast<float>(sample) / kFullScale;
  }
}

template <typename Sample>
void Fill(const AVFrame& frame, bool planar, std::size_t channels, std::size_t count, float* to) {
  for (std::size_t channel = 0; channel < channels; ++channel) {
    const auto* from = reinterpret_cast<const Sample*>(frame.extended_data[planar ? channel : 0]);
    const std::size_t step = planar ? 1 : channels;
    const std::size_t first = planar ? 0 : channel;
    for (std::size_t i = 0; i < count; ++i) {
      *to++ = ToFloat(from[first + i * step]);
    }
  }
}

}  // namespace

std::span<const float* const> SamplePlanes::Convert(const AVFrame& frame) {
  const auto format = static_cast<AVSampleFormat>(frame.format);
  const bool planar = av_sample_fmt_is_planar(format) != 0;
  const auto channels = static_cast<std::size_t>(frame.ch_layout.nb_channels);
  const auto count = static_cast<std::size_t>(frame.nb_samples);
  samples_.resize(channels * count);
  planes_.clear();
  switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8:
      Fill<std::uint8_t>(frame, planar, channels, count, samples_.data());
      break;
    case AV_SAMPLE_FMT_S16:
      Fill<std::int16_t>(frame, planar, channels, count, samples_.data());
      break;
    case AV_SAMPLE_FMT_S32:
      Fill<std::int32_t>(frame, planar, channels, count, samples_.data());
      break;
    case AV_SAMPLE_FMT_S64:
      Fill<std::int64_t>(frame, planar, channels, count, samples_.data());
      break;
    case AV_SAMPLE_FMT_FLT:
      Fill<float>(frame, planar, channels, count, samples_.data());
      break;
    case AV_SAMPLE_FMT_DBL:
      Fill<double>(frame, planar, channels, count, samples_.data());
      break;
    default:
      return {};
  }
  for (std::size_t channel = 0; channel < channels; ++channel) {
    planes_.push_back(samples_.data() + channel * count);
  }
  return planes_;
}

}  // namespace host
