#include "host/output/follow_track.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include "host/ffmpeg/error.h"

namespace host {
namespace {

constexpr int kSampleRate = 48'000;
constexpr int kChannels = 2;
constexpr std::size_t kMaxWaiting = 256;   // frames of a channel
constexpr std::size_t kMaxStretches = 64;  // more than anybody chooses before the audio comes

Time LengthOf(const AVFrame& frame) {
  return av_rescale(frame.nb_samples, kSecond, frame.sample_rate);
}

template <typename Sample>
void Scale(AVFrame& frame, const std::function<double(int)>& gain) {
  const bool isPlanar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame.format)) != 0;
  const int planes = isPlanar ? frame.ch_layout.nb_channels : 1;
  const int step = isPlanar ? 1 : frame.ch_layout.nb_channels;
  for (int plane = 0; plane < planes; ++plane) {
    auto* const samples = reinterpret_cast<Sample*>(frame.extended_data[plane]);
    for (int i = 0; i < frame.nb_samples * step; ++i) {
      samples[i] = static_cast<Sample>(samples[i] * gain(i / step));
    }
  }
}

// Other formats are cut without a fade.
void ApplyGain(AVFrame& frame, const std::function<double(int)>& gain) {
  switch (frame.format) {
    case AV_SAMPLE_FMT_FLT:
    case AV_SAMPLE_FMT_FLTP:
      return Scale<float>(frame, gain);
    case AV_SAMPLE_FMT_S16:
    case AV_SAMPLE_FMT_S16P:
      return Scale<std::int16_t>(frame, gain);
    case AV_SAMPLE_FMT_S32:
    case AV_SAMPLE_FMT_S32P:
      return Scale<std::int32_t>(frame, gain);
    default:
      return;
  }
}

// Samples first to last of a frame, as a new writable frame.
ffmpeg::Frame Part(const AVFrame& frame, int first, int last) {
  ffmpeg::Frame part = ffmpeg::MakeFrame();
  part->format = frame.format;
  part->sample_rate = frame.sample_rate;
  part->nb_samples = last - first;
  ffmpeg::Check(av_channel_layout_copy(&part->ch_layout, &frame.ch_layout), "cannot cut audio");
  ffmpeg::Check(av_frame_get_buffer(part.get(), 0), "cannot cut audio");
  ffmpeg::Check(
      av_samples_copy(part->extended_data, frame.extended_data, 0, first, last - first,
                      frame.ch_layout.nb_channels, static_cast<AVSampleFormat>(frame.format)),
      "cannot cut audio");
  return part;
}

}  // namespace

void FollowMixer::Follow(std::optional<std::size_t> channel, Time from) {
  if (!stretches_.empty()) {
    from = std::max(from, stretches_.back().from);
    if (stretches_.back().channel == channel) {
      return;
    }
  }
  stretches_.push_back({channel, from, ++stretchCount_});
  // Without audio nothing else ends those that are over.
  if (stretches_.size() > kMaxStretches) {
    stretches_.pop_front();
  }
}

Time FollowMixer::EndOf(std::size_t stretch) const {
  return stretch + 1 < stretches_.size() ? stretches_[stretch + 1].from
                                         : std::numeric_limits<Time>::max();
}

void FollowMixer::Cut(const Piece& piece, std::size_t stretch, const Sink& sink) const {
  const AVFrame& frame = *piece.frame;
  const int rate = frame.sample_rate;
  const Time begin = stretches_[stretch].from;
  const Time end = EndOf(stretch);
  const auto sampleAt = [&](Time time) {
    const Time inside = std::clamp<Time>(time - piece.start, 0, LengthOf(frame));
    return static_cast<int>(
        std::clamp<std::int64_t>(av_rescale(inside, rate, kSecond), 0, frame.nb_samples));
  };
  const int first = sampleAt(begin);
  const int last = end > piece.start + LengthOf(frame) ? frame.nb_samples : sampleAt(end);
  if (first >= last) {
    return;
  }
  const ffmpeg::Frame part = Part(frame, first, last);
  const Time start = piece.start + av_rescale(first, kSecond, rate);
  const Time stop = start + LengthOf(*part);
  if (start < begin + kFade || end - kFade < stop) {
    ApplyGain(*part, [&](int sample) {
      const Time at = start + av_rescale(sample, kSecond, rate);
      const Time inside = std::min(at - begin, end - at);
      return std::clamp(static_cast<double>(inside) / static_cast<double>(kFade), 0.0, 1.0);
    });
  }
  sink(*part, start);
}

void FollowMixer::Push(std::size_t channel, ffmpeg::Frame frame, Time start, const Sink& sink) {
  const Time end = start + LengthOf(*frame);
  reached_[channel] = end;
  latest_ = std::max(latest_, end);
  std::deque<Piece>& waiting = waiting_[channel];
  waiting.push_back({std::move(frame), start, 0});
  if (waiting.size() > kMaxWaiting) {
    waiting.pop_front();
  }
  Emit(sink);
}

void FollowMixer::Emit(const Sink& sink) {
  while (!stretches_.empty()) {
    const std::optional<std::size_t> channel = stretches_.front().channel;
    const Time end = EndOf(0);
    if (channel) {
      std::deque<Piece>& waiting = waiting_[*channel];
      while (!waiting.empty() && waiting.front().start < end) {
        if (waiting.front().cutFor != stretches_.front().number) {
          Cut(waiting.front(), 0, sink);
          waiting.front().cutFor = stretches_.front().number;
        }
        if (waiting.front().start + LengthOf(*waiting.front().frame) > end) {
          break;  // the rest may belong to a later stretch of the same channel
        }
        waiting.pop_front();
      }
    }
    const bool isOver = latest_ >= end &&
                        (!channel || reached_[*channel] >= end || latest_ >= end + kFormerTimeout);
    if (!isOver) {
      break;
    }
    stretches_.pop_front();
  }
  // Drops what no later stretch needs.
  const Time from = stretches_.empty() ? latest_ : stretches_.front().from;
  for (auto& [channel, waiting] : waiting_) {
    while (!waiting.empty() && waiting.front().start + LengthOf(*waiting.front().frame) <= from) {
      waiting.pop_front();
    }
  }
}

FollowTrack::FollowTrack(std::vector<std::shared_ptr<AudioTrack>> tracks, TakePacket take)
    : tracks_(std::move(tracks)), take_(std::move(take)), thread_([this] { Run(); }, "follow") {}

FollowTrack::FollowTrack(std::vector<std::shared_ptr<AudioTrack>> tracks, TakeSamples takeSamples)
    : tracks_(std::move(tracks)),
      takeSamples_(std::move(takeSamples)),
      thread_([this] { Run(); }, "follow") {}

FollowTrack::~FollowTrack() {
  queue_.Close();
  thread_.Wait(os::kInfinite);
}

void FollowTrack::Follow(std::optional<std::size_t> channel, Time from) {
  former_ = wanted_.exchange(channel.value_or(kNone));
  Item item;
  item.follow = channel;
  item.from = from;
  static_cast<void>(queue_.PushDroppingOldest(std::move(item)));
}

void FollowTrack::Take(std::size_t channel, const AVPacket& packet) {
  if (channel == wanted_ || channel == former_) {
    Item item;
    item.channel = channel;
    item.packet = ffmpeg::RefPacket(packet);
    static_cast<void>(queue_.PushDroppingOldest(std::move(item)));
  }
}

void FollowTrack::Run() {
  try {
    if (take_) {
      audio_->Fix(AacFormat(kSampleRate, kChannels, {}));
      encoder_ = std::make_unique<AudioEncoder>(*audio_->format()->parameters);
    }
  } catch (const ffmpeg::Error&) {
    return;  // no encoder for AAC: the track stays silent
  }
  while (const std::optional<Item> item = queue_.Pop()) {
    if (!item->packet) {
      mixer_.Follow(item->follow, item->from);
      continue;
    }
    try {
      Decode(*item);
    } catch (const ffmpeg::Error&) {
      decoders_.erase(item->channel);
    }
  }
}

void FollowTrack::Decode(const Item& item) {
  const std::shared_ptr<const AudioFormat> format =
      item.channel < tracks_.size() && tracks_[item.channel] ? tracks_[item.channel]->format()
                                                             : nullptr;
  if (!format) {
    return;
  }
  Decoder& decoder = decoders_[item.channel];
  if (decoder.format != format) {
    decoder = {format, OpenAudioDecoder(*format->parameters)};
  }
  if (avcodec_send_packet(decoder.codec.get(), item.packet.get()) < 0) {
    return;
  }
  for (;;) {
    ffmpeg::Frame frame = ffmpeg::MakeFrame();
    if (avcodec_receive_frame(decoder.codec.get(), frame.get()) < 0) {
      return;
    }
    const Time start = frame->pts != AV_NOPTS_VALUE ? frame->pts : item.packet->pts;
    mixer_.Push(item.channel, std::move(frame), start, [this](const AVFrame& part, Time at) {
      if (encoder_) {
        encoder_->Push(part, at, [this](ffmpeg::Packet packet) { take_(*packet); });
      } else {
        takeSamples_(part, at);
      }
    });
  }
}

}  // namespace host
