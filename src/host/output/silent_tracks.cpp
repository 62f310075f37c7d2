#include "host/output/silent_tracks.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include "host/channel/sound/audio_encoder.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

// The first packets of an encoder hold its delay; the fourth is like all that follow.
constexpr int kSteadyPacket = 3;
constexpr int kSamples = 8 * 1536;

ffmpeg::Frame Silence(const AVCodecParameters& parameters, int samples) {
  ffmpeg::Frame frame = ffmpeg::MakeFrame();
  frame->format = AV_SAMPLE_FMT_FLTP;
  frame->nb_samples = samples;
  frame->sample_rate = parameters.sample_rate;
  av_channel_layout_default(&frame->ch_layout, parameters.ch_layout.nb_channels);
  ffmpeg::Check(av_frame_get_buffer(frame.get(), 0), "cannot make silence");
  av_samples_set_silence(frame->extended_data, 0, samples, frame->ch_layout.nb_channels,
                         AV_SAMPLE_FMT_FLTP);
  return frame;
}

ffmpeg::Packet EncodeSilence(const AudioFormat& format) {
  const AVCodecParameters& parameters = *format.parameters;
  AudioEncoder encoder(parameters);
  ffmpeg::Packet steady;
  int count = 0;
  encoder.Push(*Silence(parameters, kSamples), 0, [&](ffmpeg::Packet packet) {
    if (count++ == kSteadyPacket) {
      steady = std::move(packet);
    }
  });
  return steady;
}

}  // namespace

void SilentTracks::Restart() {
  for (auto& [channel, track] : tracks_) {
    track.count = 0;
  }
}

void SilentTracks::Add(std::size_t channel, const AudioFormat& format) {
  try {
    Track track;
    track.packet = EncodeSilence(format);
    if (track.packet) {
      track.sampleRate = format.parameters->sample_rate;
      track.samples =
          av_rescale_rnd(track.packet->duration, track.sampleRate, kSecond, AV_ROUND_NEAR_INF);
      tracks_[channel] = std::move(track);
    }
  } catch (const ffmpeg::Error&) {
    tracks_.erase(channel);
  }
}

Time SilentTracks::TimeOf(const Track& track, std::int64_t count) {
  return av_rescale(count * track.samples, kSecond, track.sampleRate);
}

void SilentTracks::Fill(std::size_t channel, Track& track, Time before, const Write& write) {
  for (;;) {
    const Time time = TimeOf(track, track.count);
    const Time end = TimeOf(track, track.count + 1);
    if (end > before) {
      return;
    }
    ffmpeg::Packet packet = ffmpeg::RefPacket(*track.packet);
    packet->pts = packet->dts = time;
    packet->duration = end - time;
    ++track.count;
    write(channel, std::move(packet));
  }
}

void SilentTracks::FillTo(Time before, const Write& write) {
  for (auto& [channel, track] : tracks_) {
    Fill(channel, track, before, write);
  }
}

bool SilentTracks::EndBefore(std::size_t channel, const AVPacket& packet, const Write& write) {
  const auto track = tracks_.find(channel);
  if (track == tracks_.end()) {
    return true;
  }
  Fill(channel, track->second, packet.dts, write);
  if (packet.dts + packet.duration / 2 < TimeOf(track->second, track->second.count)) {
    return false;
  }
  tracks_.erase(track);
  return true;
}

}  // namespace host
