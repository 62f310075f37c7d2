#include "host/output/screen/audio_sync.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include "host/ffmpeg/error.h"

namespace host {
namespace {

// Frames are shown when a display refreshes: one alone says little.
constexpr int kFramesOfMean = 20;
// The clock has jumped when so many frames in a row are further off than this.
constexpr Time kJump = 100 * kMillisecond;
constexpr int kFramesOfJump = 10;
// The time in which a difference is caught up.
constexpr double kCatchUp = 4;  // seconds
constexpr double kSmoothing = 0.05;
// The largest gap between consecutive blocks: timestamps are rounded.
constexpr Time kSeam = 5 * kMillisecond;
// What the resampler may hold besides what its filter needs, samples.
constexpr std::int64_t kHeld = 48;

Time LengthOf(std::size_t samples) {
  return static_cast<Time>(samples) * kSecond / AudioSync::kSampleRate;
}

std::size_t SamplesIn(Time time) {
  return static_cast<std::size_t>(std::max<Time>(time, 0) * AudioSync::kSampleRate / kSecond);
}

}  // namespace

Time AudioSync::Block::position() const {
  return start + LengthOf(used);
}

Time AudioSync::Block::end() const {
  return start + LengthOf(samples.size() / kChannels);
}

AudioSync::AudioSync() {
  AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
  SwrContext* context = nullptr;
  int result = swr_alloc_set_opts2(&context, &stereo, AV_SAMPLE_FMT_FLT, kSampleRate, &stereo,
                                   AV_SAMPLE_FMT_FLT, kSampleRate, 0, nullptr);
  const os::MutexLock guard(lock_);
  resampler_.reset(context);
  if (result >= 0) {
    // Otherwise equal rates are passed through and cannot be stretched.
    av_opt_set_int(context, "swr_flags", SWR_FLAG_RESAMPLE, 0);
    result = swr_init(context);
  }
  ffmpeg::Check(result, "cannot play audio");
}

void AudioSync::FrameShown(Time wall, Time machine) {
  const os::MutexLock guard(lock_);
  const Time offset = machine - wall;
  outliers_ = offset_ && std::abs(offset - *offset_) > kJump ? outliers_ + 1 : 0;
  if (!offset_ || outliers_ >= kFramesOfJump) {
    offset_ = offset;
  } else if (outliers_ == 0) {
    *offset_ += (offset - *offset_) / kFramesOfMean;
  }
}

void AudioSync::Push(std::span<const float> samples, Time wall) {
  const os::MutexLock guard(lock_);
  blocks_.push_back({{samples.begin(), samples.end()}, wall});
  while (blocks_.back().end() - blocks_.front().position() > kMaxQueued && blocks_.size() > 1) {
    blocks_.pop_front();
  }
}

void AudioSync::Restart() {
  if (isPlaying_) {
    swr_close(resampler_.get());
    swr_init(resampler_.get());
  }
  isPlaying_ = false;
  error_ = 0;
}

void AudioSync::DropUntil(Time wall) {
  while (!blocks_.empty() && blocks_.front().end() <= wall) {
    blocks_.pop_front();
  }
  if (!blocks_.empty()) {
    Block& block = blocks_.front();
    block.used += std::min(SamplesIn(wall - block.position()), block.left());
  }
}

std::size_t AudioSync::Play(std::span<float> samples) {
  const std::size_t wanted = samples.size() / kChannels;
  std::size_t played = 0;
  while (played < wanted && !blocks_.empty()) {
    Block& block = blocks_.front();
    if (block.left() == 0) {
      blocks_.pop_front();
      continue;
    }
    if (std::abs(block.position() - end_) > kSeam) {
      Restart();
      break;
    }
    const std::int64_t held = swr_get_delay(resampler_.get(), kSampleRate);
    const auto needed = static_cast<std::int64_t>(wanted - played) + kHeld - held;
    const auto given = static_cast<std::size_t>(
        std::clamp<std::int64_t>(needed, 1, static_cast<std::int64_t>(block.left())));
    const auto* in =
        reinterpret_cast<const std::uint8_t*>(block.samples.data() + block.used * kChannels);
    auto* out = reinterpret_cast<std::uint8_t*>(samples.data() + played * kChannels);
    const int got = swr_convert(resampler_.get(), &out, static_cast<int>(wanted - played), &in,
                                static_cast<int>(given));
    block.used += given;
    end_ = block.position();
    played += static_cast<std::size_t>(std::max(got, 0));
  }
  return played;
}

void AudioSync::Pull(std::span<float> samples, Time machine) {
  std::fill(samples.begin(), samples.end(), 0.0F);
  const os::MutexLock guard(lock_);
  if (!offset_) {
    return;
  }
  while (!samples.empty()) {
    const Time wanted = machine - *offset_;
    if (!isPlaying_) {
      DropUntil(wanted);
      if (blocks_.empty()) {
        return;
      }
      end_ = blocks_.front().position();
      isPlaying_ = end_ <= wanted;
    }
    const Time next = end_ - swr_get_delay(resampler_.get(), kSecond);
    const Time early = next - wanted;
    std::size_t done = 0;
    if (!isPlaying_) {
      // Silence up to the first sample.
      done = std::clamp<std::size_t>(SamplesIn(early), 1, samples.size() / kChannels);
    } else if (std::abs(early) > kTolerance) {
      Restart();
      continue;
    } else {
      error_ += (static_cast<double>(early) - error_) * kSmoothing;
      const double stretch = std::clamp(error_ / (kCatchUp * kSecond), -kMaxStretch, kMaxStretch);
      swr_set_compensation(resampler_.get(), static_cast<int>(std::lround(stretch * kSampleRate)),
                           kSampleRate);
      done = Play(samples);
      if (done == 0 && isPlaying_) {
        return;  // nothing is there
      }
    }
    samples = samples.subspan(done * kChannels);
    machine += LengthOf(done);
  }
}

}  // namespace host
