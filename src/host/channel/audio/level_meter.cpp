#include "host/channel/audio/level_meter.h"

#include <algorithm>
#include <cmath>
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

namespace {

// Loud enough for anything that a decoder puts out; keeps broken samples within the record's range.
constexpr float kLoudest = 1000.0F;
// Half of what the record can show.
constexpr float kQuietest = 0.0005F;

float Magnitude(float sample) {
  return std::isnan(sample) ? 0.0F : std::min(std::fabs(sample), kLoudest);
}

std::int32_t Thousandths(float value) {
  return static_cast<std::int32_t>(std::lround(value * 1000.0F));
}

}  // namespace

void LevelMeter::StartFrame(std::int64_t frame) {
  frame_ = frame;
  measured_ = false;
  level_.fill(0.0F);
}

void LevelMeter::EndFrame(const Sink& sink) {
  if (!frame_ || !measured_) {
    return;
  }
  Reading reading;
  reading.start = FrameStart(*frame_, settings_.frameRate);
  reading.duration = FrameStart(*frame_ + 1, settings_.frameRate) - reading.start;
  reading.levels.channelCount = channels_;
  const Time since = lastReading_ ? std::max<Time>(reading.start - *lastReading_, 0) : 0;
  const double fall = settings_.peakFall * static_cast<double>(since) / kSecond;
  for (std::size_t i = 0; i < static_cast<std::size_t>(channels_); ++i) {
    if (reading.start - peakStart_[i] > settings_.peakHold) {
      peak_[i] *= static_cast<float>(std::pow(10.0, -fall / 20.0));
      peak_[i] = peak_[i] < kQuietest ? 0.0F : peak_[i];
    }
    if (level_[i] >= peak_[i]) {
      peak_[i] = level_[i];
      peakStart_[i] = reading.start;
    }
    reading.loudest = std::max(reading.loudest, level_[i]);
    reading.levels.levels[i] = Thousandths(level_[i]);
    reading.levels.peaks[i] = Thousandths(peak_[i]);
  }
  lastReading_ = reading.start;
  measured_ = false;
  sink(reading);
}

void LevelMeter::Push(std::span<const float* const> planes, int samples, int rate, Time start,
                      const Sink& sink) {
  const int channels = std::min(static_cast<int>(planes.size()), kMaxMeterChannels);
  if (channels < 1 || samples < 1 || rate < 1) {
    return;
  }
  if (channels != channels_) {
    EndFrame(sink);
    channels_ = channels;
    frame_.reset();
    lastReading_.reset();
    peak_.fill(0.0F);
    peakStart_.fill(0);
  }
  for (int done = 0; done < samples;) {
    const Time now = start + static_cast<Time>(done) * kSecond / rate;
    const std::int64_t frame = FrameAt(now, settings_.frameRate);
    if (!frame_ || frame > *frame_) {
      EndFrame(sink);
      StartFrame(frame);
    }
    // Samples up to the end of the frame under way, at least one.
    const Time left = FrameStart(*frame_ + 1, settings_.frameRate) - now;
    const Time fitting = std::max<Time>((left * rate + kSecond - 1) / kSecond, 1);
    const int count = static_cast<int>(std::min<Time>(samples - done, fitting));
    for (int channel = 0; channel < channels; ++channel) {
      const float* const plane = planes[static_cast<std::size_t>(channel)] + done;
      float& level = level_[static_cast<std::size_t>(channel)];
      for (int i = 0; i < count; ++i) {
        level = std::max(level, Magnitude(plane[i]));
      }
    }
    measured_ = true;
    done += count;
  }
  // A frame that these samples fill to its end need not wait for the next ones.
  const Time end = start + static_cast<Time>(samples) * kSecond / rate;
  if (end >= FrameStart(*frame_ + 1, settings_.frameRate)) {
    EndFrame(sink);
  }
}

void LevelMeter::Finish(const Sink& sink) {
  EndFrame(sink);
  frame_.reset();
}

}  // namespace host
