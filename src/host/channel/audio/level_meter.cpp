#include "host/channel/audio/level_meter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

namespace host {

namespace {

ffmpeg::Resampler ConverterOf(int format, int channels) {
  // Channels by number only: nothing is mixed.
  AVChannelLayout layout{
      .order = AV_CHANNEL_ORDER_UNSPEC, .nb_channels = channels, .u = {}, .opaque = nullptr};
  constexpr int kAnyRate = 48000;
  SwrContext* context = nullptr;
  const int result = swr_alloc_set_opts2(&context, &layout, AV_SAMPLE_FMT_FLTP, kAnyRate, &layout,
                                         static_cast<AVSampleFormat>(format), kAnyRate, 0, nullptr);
  ffmpeg::Resampler converter(context);
  if (result < 0 || swr_init(context) < 0) {
    return nullptr;
  }
  return converter;
}

}  // namespace

std::span<const float* const> SamplePlanes::Convert(const AVFrame& frame) {
  const int channels = frame.ch_layout.nb_channels;
  if (frame.format != format_ || channels != channels_) {
    converter_ = ConverterOf(frame.format, channels);
    format_ = frame.format;
    channels_ = channels;
  }
  if (!converter_) {
    return {};
  }
  const auto count = static_cast<std::size_t>(frame.nb_samples);
  samples_.resize(static_cast<std::size_t>(channels) * count);
  planes_.clear();
  for (int channel = 0; channel < channels; ++channel) {
    planes_.push_back(samples_.data() + static_cast<std::size_t>(channel) * count);
  }
  const int converted = swr_convert(
      converter_.get(), reinterpret_cast<std::uint8_t**>(planes_.data()), frame.nb_samples,
      const_cast<const std::uint8_t**>(frame.extended_data), frame.nb_samples);
  if (converted != frame.nb_samples) {
    return {};
  }
  return {planes_.data(), planes_.size()};
}

namespace {

// More than any decoder's output; keeps broken samples within the range of the record.
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
    // Samples up to the end of the present frame, at least one.
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
  // A frame that these samples complete does not wait for the next ones.
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
