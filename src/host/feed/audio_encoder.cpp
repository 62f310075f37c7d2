#include "host/feed/audio_encoder.h"

#include <algorithm>
#include <cmath>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {
namespace {

// Timestamps are counted in samples, so that rounded ones do not interrupt the audio. Once they
// have drifted this far from those of the frames, the audio follows the latter.
constexpr Time kTolerance = 30 * kMillisecond;
constexpr int kDefaultFrameSize = 1024;

// No valid sample is beyond this. Encoders refuse a frame with a sample that is not a number.
constexpr float kMaxSample = 1000.0F;

// Replaces invalid floating-point samples by silence; returns whether there were any.
bool Repair(AVFrame& frame) {
  bool found = false;
  const int planes = frame.ch_layout.nb_channels;
  for (int plane = 0; frame.format == AV_SAMPLE_FMT_FLTP && plane < planes; ++plane) {
    auto* const samples = reinterpret_cast<float*>(frame.extended_data[plane]);
    for (int i = 0; i < frame.nb_samples; ++i) {
      if (!(std::fabs(samples[i]) <= kMaxSample)) {
        samples[i] = 0.0F;
        found = true;
      }
    }
  }
  return found;
}

const AVCodec& EncoderFor(AVCodecID id) {
  const AVCodec* const encoder = avcodec_find_encoder(id == AV_CODEC_ID_MP1 ? AV_CODEC_ID_MP2 : id);
  if (encoder == nullptr) {
    throw ffmpeg::Error(AVERROR_ENCODER_NOT_FOUND, "cannot encode audio as", avcodec_get_name(id));
  }
  return *encoder;
}

constexpr int kMaxChannels = 2;

}  // namespace

ffmpeg::Codec OpenAudioDecoder(const AVCodecParameters& parameters) {
  const AVCodec* const codec = avcodec_find_decoder(parameters.codec_id);
  if (codec == nullptr) {
    throw ffmpeg::Error(AVERROR_DECODER_NOT_FOUND, "cannot decode",
                        avcodec_get_name(parameters.codec_id));
  }
  ffmpeg::Codec decoder(avcodec_alloc_context3(codec));
  if (!decoder) {
    throw std::bad_alloc();
  }
  ffmpeg::Check(avcodec_parameters_to_context(decoder.get(), &parameters), "cannot decode",
                codec->name);
  decoder->pkt_timebase = ffmpeg::kTimeUnit;
  ffmpeg::Check(avcodec_open2(decoder.get(), codec, nullptr), "cannot decode", codec->name);
  return decoder;
}

AudioEncoder::AudioEncoder(const AVCodecParameters& target) {
  const AVCodec& encoder = EncoderFor(target.codec_id);
  // The encoder makes AAC-LC only, not the other profiles that a config may announce.
  if (target.codec_id == AV_CODEC_ID_AAC && target.profile != FF_PROFILE_UNKNOWN &&
      target.profile != FF_PROFILE_AAC_LOW) {
    throw ffmpeg::Error(AVERROR_ENCODER_NOT_FOUND, "cannot encode this kind of AAC");
  }
  codec_.reset(avcodec_alloc_context3(&encoder));
  if (!codec_) {
    throw std::bad_alloc();
  }
  codec_->sample_rate = target.sample_rate;
  codec_->sample_fmt = encoder.sample_fmts != nullptr ? encoder.sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
  ffmpeg::Check(av_channel_layout_copy(&codec_->ch_layout, &target.ch_layout),
                "cannot encode audio");
  if (codec_->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
    av_channel_layout_default(&codec_->ch_layout, target.ch_layout.nb_channels);
  }
  codec_->time_base = {1, target.sample_rate};
  codec_->bit_rate =
      target.bit_rate > 0 ? target.bit_rate : 64'000 * std::int64_t{target.ch_layout.nb_channels};
  codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  codec_->thread_count = 1;
  ffmpeg::Check(avcodec_open2(codec_.get(), &encoder, nullptr), "cannot start the encoder",
                encoder.name);
  frameSize_ = codec_->frame_size > 0 ? codec_->frame_size : kDefaultFrameSize;
  fifo_.reset(
      av_audio_fifo_alloc(codec_->sample_fmt, codec_->ch_layout.nb_channels, 4 * frameSize_));
  if (!fifo_) {
    throw std::bad_alloc();
  }
}

AudioEncoder::~AudioEncoder() = default;

ffmpeg::Parameters AudioEncoder::parameters() const {
  ffmpeg::Parameters parameters = ffmpeg::MakeParameters();
  ffmpeg::Check(avcodec_parameters_from_context(parameters.get(), codec_.get()),
                "cannot describe the encoded audio");
  // The encoder's delay is in the timestamps of the packets.
  parameters->initial_padding = 0;
  return parameters;
}

Time AudioEncoder::TimeOf(std::int64_t sample) const {
  return *base_ + av_rescale(sample, kSecond, codec_->sample_rate);
}

Time AudioEncoder::Expected() const {
  const std::int64_t held = resampler_ ? swr_get_delay(resampler_.get(), codec_->sample_rate) : 0;
  return TimeOf(next_ + av_audio_fifo_size(fifo_.get()) + held);
}

void AudioEncoder::Push(const AVFrame& frame, Time start, const PacketSink& sink) {
  if (frame.nb_samples <= 0 || frame.sample_rate <= 0) {
    return;
  }
  if (!base_) {
    base_ = start;
  } else if (start < Expected() - kTolerance) {
    return;
  } else if (start > Expected() + kTolerance) {
    DrainResampler();
    EncodeFull(sink);
    EncodeRest(sink);
    next_ = std::max(next_, av_rescale(start - *base_, codec_->sample_rate, kSecond));
  }
  Resample(frame);
  EncodeFull(sink);
}

void AudioEncoder::Resample(const AVFrame& frame) {
  const bool fits = resampler_ && source_->sample_rate == frame.sample_rate &&
                    source_->format == frame.format &&
                    av_channel_layout_compare(&source_->ch_layout, &frame.ch_layout) == 0;
  if (!fits) {
    DrainResampler();
    source_ = ffmpeg::MakeFrame();
    source_->sample_rate = frame.sample_rate;
    source_->format = frame.format;
    ffmpeg::Check(av_channel_layout_copy(&source_->ch_layout, &frame.ch_layout),
                  "cannot convert audio");
    AVChannelLayout from{};
    if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
      av_channel_layout_default(&from, frame.ch_layout.nb_channels);
    } else {
      ffmpeg::Check(av_channel_layout_copy(&from, &frame.ch_layout), "cannot convert audio");
    }
    SwrContext* context = nullptr;
    const int result = swr_alloc_set_opts2(
        &context, &codec_->ch_layout, codec_->sample_fmt, codec_->sample_rate, &from,
        static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
    av_channel_layout_uninit(&from);
    resampler_.reset(context);
    ffmpeg::Check(result, "cannot convert audio");
    ffmpeg::Check(swr_init(resampler_.get()), "cannot convert audio");
  }
  const ffmpeg::Frame converted = ffmpeg::MakeFrame();
  converted->format = codec_->sample_fmt;
  converted->nb_samples = std::max(1, swr_get_out_samples(resampler_.get(), frame.nb_samples));
  ffmpeg::Check(av_channel_layout_copy(&converted->ch_layout, &codec_->ch_layout),
                "cannot convert audio");
  ffmpeg::Check(av_frame_get_buffer(converted.get(), 0), "cannot convert audio");
  const int count = ffmpeg::Check(
      swr_convert(resampler_.get(), converted->extended_data, converted->nb_samples,
                  const_cast<const std::uint8_t**>(frame.extended_data), frame.nb_samples),
      "cannot convert audio");
  ffmpeg::Check(
      av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(converted->extended_data), count),
      "cannot convert audio");
}

// Before a change: what the resampler holds belongs to the audio before it.
void AudioEncoder::DrainResampler() {
  if (!resampler_) {
    return;
  }
  const ffmpeg::Frame rest = ffmpeg::MakeFrame();
  rest->format = codec_->sample_fmt;
  rest->nb_samples = std::max(1, swr_get_out_samples(resampler_.get(), 0));
  ffmpeg::Check(av_channel_layout_copy(&rest->ch_layout, &codec_->ch_layout),
                "cannot convert audio");
  ffmpeg::Check(av_frame_get_buffer(rest.get(), 0), "cannot convert audio");
  const int count = ffmpeg::Check(
      swr_convert(resampler_.get(), rest->extended_data, rest->nb_samples, nullptr, 0),
      "cannot convert audio");
  ffmpeg::Check(
      av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(rest->extended_data), count),
      "cannot convert audio");
  resampler_.reset();
}

void AudioEncoder::EncodeFull(const PacketSink& sink) {
  while (av_audio_fifo_size(fifo_.get()) >= frameSize_) {
    EncodeRest(sink);
  }
}

void AudioEncoder::EncodeRest(const PacketSink& sink) {
  const int there = std::min(av_audio_fifo_size(fifo_.get()), frameSize_);
  if (there == 0) {
    return;
  }
  const ffmpeg::Frame frame = ffmpeg::MakeFrame();
  frame->format = codec_->sample_fmt;
  frame->sample_rate = codec_->sample_rate;
  frame->nb_samples = frameSize_;
  ffmpeg::Check(av_channel_layout_copy(&frame->ch_layout, &codec_->ch_layout),
                "cannot encode audio");
  ffmpeg::Check(av_frame_get_buffer(frame.get(), 0), "cannot encode audio");
  av_samples_set_silence(frame->extended_data, there, frameSize_ - there,
                         codec_->ch_layout.nb_channels, codec_->sample_fmt);
  ffmpeg::Check(
      av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(frame->extended_data), there),
      "cannot encode audio");
  repaired_ += Repair(*frame) ? 1 : 0;
  frame->pts = next_;
  next_ += frameSize_;
  Send(frame.get(), sink);
}

void AudioEncoder::Finish(const PacketSink& sink) {
  DrainResampler();
  EncodeFull(sink);
  EncodeRest(sink);
  Send(nullptr, sink);
}

void AudioEncoder::Send(const AVFrame* frame, const PacketSink& sink) {
  ffmpeg::Check(avcodec_send_frame(codec_.get(), frame), "cannot encode audio");
  for (;;) {
    ffmpeg::Packet packet = ffmpeg::MakePacket();
    const int result = avcodec_receive_packet(codec_.get(), packet.get());
    if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
      return;
    }
    ffmpeg::Check(result, "cannot encode audio");
    packet->pts = TimeOf(packet->pts);
    packet->dts = packet->pts;
    packet->duration = av_rescale(frameSize_, kSecond, codec_->sample_rate);
    packet->time_base = ffmpeg::kTimeUnit;
    sink(std::move(packet));
  }
}

namespace {

// The first packets of an encoder contain its delay; the fourth is like all later ones.
constexpr int kSteadyPacket = 3;
constexpr int kSilentSamples = 8 * 1536;

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

}  // namespace

ffmpeg::Packet EncodeSilence(const AudioFormat& format) {
  const AVCodecParameters& parameters = *format.parameters;
  AudioEncoder encoder(parameters);
  ffmpeg::Packet steady;
  int count = 0;
  encoder.Push(*Silence(parameters, kSilentSamples), 0, [&](ffmpeg::Packet packet) {
    if (count++ == kSteadyPacket) {
      steady = std::move(packet);
    }
  });
  return steady;
}

AudioTranscoder::AudioTranscoder(const AudioFormat& from)
    : format_(AacFormat(from.parameters->sample_rate,
                        std::clamp(from.parameters->ch_layout.nb_channels, 1, kMaxChannels),
                        from.language)),
      decoder_(OpenAudioDecoder(*from.parameters)),
      encoder_(*format_->parameters),
      frame_(ffmpeg::MakeFrame()) {}

void AudioTranscoder::Push(const AVPacket& packet, const Sink& sink) {
  if (avcodec_send_packet(decoder_.get(), &packet) < 0) {
    return;
  }
  while (avcodec_receive_frame(decoder_.get(), frame_.get()) >= 0) {
    const Time start = frame_->pts != AV_NOPTS_VALUE ? frame_->pts : packet.pts;
    encoder_.Push(*frame_, start, sink);
  }
}

}  // namespace host
