#include "host/output/audio_transcoder.h"

#include <algorithm>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "host/ffmpeg/error.h"
#include "host/ffmpeg/time_unit.h"

namespace host {
namespace {

constexpr int kMaxChannels = 2;

ffmpeg::Codec OpenDecoder(const AVCodecParameters& parameters) {
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

}  // namespace

AudioTranscoder::AudioTranscoder(const AudioFormat& from)
    : format_(AacFormat(from.parameters->sample_rate,
                        std::clamp(from.parameters->ch_layout.nb_channels, 1, kMaxChannels),
                        from.language)),
      decoder_(OpenDecoder(*from.parameters)),
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
