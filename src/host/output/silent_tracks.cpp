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

void SilentTracks::Begin(Time start) {
  start_ = start;
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

void SilentTracks::Fill(std::size_t channel, Track& track, Time before, const Write& write) const {
  for (;;) {
    const Time time = start_ + av_rescale(track.count * track.samples, kSecond, track.sampleRate);
    const Time end =
        start_ + av_rescale((track.count + 1) * track.samples, kSecond, track.sampleRate);
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

void SilentTracks::End(std::size_t channel, Time before, const Write& write) {
  if (const auto track = tracks_.find(channel); track != tracks_.end()) {
    Fill(channel, track->second, before, write);
    tracks_.erase(track);
  }
}

}  // namespace host
