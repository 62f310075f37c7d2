#include "host/channel/audio/audio_passthrough.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include "host/feed/audio_format.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

std::string Name(const AVCodecParameters& parameters) {
  return std::string(avcodec_get_name(parameters.codec_id)) + ", " +
         std::to_string(parameters.sample_rate) + " Hz, " +
         std::to_string(parameters.ch_layout.nb_channels) +
         (parameters.ch_layout.nb_channels == 1 ? " channel" : " channels");
}

}  // namespace

AudioPassthrough::AudioPassthrough(std::shared_ptr<AudioTrack> track, std::string fallbackLanguage,
                                   Say say)
    : track_(std::move(track)),
      fallbackLanguage_(std::move(fallbackLanguage)),
      say_(std::move(say)) {}

void AudioPassthrough::SayOnce(const std::string& text) {
  if (text != said_ && say_) {
    say_(text);
  }
  said_ = text;
}

const std::string& AudioPassthrough::LanguageOf(const AudioInfo& info) const {
  return info.language.empty() ? fallbackLanguage_ : info.language;
}

void AudioPassthrough::Announce(const AVCodecParameters* parameters, const AudioInfo* info) {
  track_->Announce(parameters != nullptr);
  if (parameters == nullptr) {
    return;
  }
  std::shared_ptr<const AudioFormat> format;
  if (!PassesThrough(parameters->codec_id)) {
    format =
        AacFormat(parameters->sample_rate, parameters->ch_layout.nb_channels, LanguageOf(*info));
  } else {
    format = PassedFormat(*parameters, nullptr, LanguageOf(*info));
  }
  if (format) {
    track_->Fix(std::move(format));
  }
}

AudioPassthrough::Form AudioPassthrough::FormOf(const AVCodecParameters& parameters,
                                                std::uint32_t header) {
  Form form{
      parameters.codec_id, parameters.sample_rate, parameters.ch_layout.nb_channels, header, {}};
  if (parameters.codec_id == AV_CODEC_ID_AAC && parameters.extradata_size > 0) {
    form.config.assign(parameters.extradata, parameters.extradata + parameters.extradata_size);
  }
  return form;
}

bool AudioPassthrough::Take(AudioPacket packet, const AVCodecParameters& announced,
                            const AudioInfo& info, const Sink& sink) {
  if (Form form = FormOf(announced, 0); form != announced_) {
    announced_ = std::move(form);
    parameters_ = ffmpeg::CopyParameters(announced);
  }
  TakeFromPacket(*packet.packet, *parameters_);
  const AVCodecParameters& parameters = *parameters_;
  const bool isAac = parameters.codec_id == AV_CODEC_ID_AAC;
  Form form = FormOf(parameters, isAac ? AdtsHeader(*packet.packet) : 0);
  if (form != form_) {
    // Drops what the former encoder holds: less than two of its frames.
    ForgetEncoder();
    format_.reset();
    Decide(packet, parameters, form, info);
    form_ = std::move(form);
  }
  if (encoder_ || !format_) {
    return true;
  }
  packet.format = format_;
  return sink(std::move(packet));
}

bool AudioPassthrough::PassesAs(const Form& form) const {
  return !passedForm_ ||
         (form.channels == passedForm_->channels && !(isDecodedOtherwise_ && form == *passedForm_));
}

// AAC may change to spectral band replication, and E-AC-3 to more channels, without a change in the
// headers that are read here. Damaged frames may have any form, and the first ones are incomplete.
void AudioPassthrough::NoteDecoded(const AudioSamples& samples) {
  constexpr Time kFirst = kSecond / 2;
  constexpr int kFramesOfChange = 5;
  if (!form_ || form_ != passedForm_) {
    return;
  }
  const Decoded now{samples.frame->sample_rate, samples.frame->ch_layout.nb_channels};
  if (decodedFor_ < kFirst) {
    decodedFor_ += samples.duration;
    decoded_ = now;
    return;
  }
  const bool isOtherwise = now != decoded_;
  framesAgainst_ = isOtherwise != isDecodedOtherwise_ ? framesAgainst_ + 1 : 0;
  if (framesAgainst_ >= kFramesOfChange) {
    framesAgainst_ = 0;
    isDecodedOtherwise_ = isOtherwise;
    form_.reset();  // the next packet decides again
  }
}

void AudioPassthrough::Decide(const AudioPacket& packet, const AVCodecParameters& parameters,
                              const Form& form, const AudioInfo& info) {
  const std::string& language = LanguageOf(info);
  try {
    std::shared_ptr<const AudioFormat> own;
    if (PassesThrough(parameters.codec_id)) {
      own = PassedFormat(parameters, packet.packet.get(), language);
    }
    const bool passes = own != nullptr;
    const auto track = track_->Fix(
        passes ? own
               : AacFormat(parameters.sample_rate, parameters.ch_layout.nb_channels, language));
    if (passes && SameTrack(*own, *track) && PassesAs(form)) {
      if (form != passedForm_) {
        passedForm_ = form;
        decodedFor_ = 0;
        framesAgainst_ = 0;
        isDecodedOtherwise_ = false;
      }
    } else {
      encoder_ = std::make_unique<AudioEncoder>(*track->parameters);
      SayOnce("its audio (" + Name(parameters) + ") is encoded for the outputs (" +
              Name(*track->parameters) + ")");
    }
    format_ = track;
  } catch (const ffmpeg::Error& error) {
    encoder_.reset();
    SayOnce("its audio (" + Name(parameters) +
            ") is not in the outputs: it differs from what their track began with, and " +
            error.what());
  }
}

bool AudioPassthrough::Encode(const std::function<void(const AudioEncoder::PacketSink&)>& work,
                              const Sink& sink) {
  if (!encoder_) {
    return true;
  }
  bool taken = true;
  try {
    work([&](ffmpeg::Packet encoded) {
      AudioPacket packet;
      packet.start = encoded->pts;
      packet.duration = encoded->duration;
      packet.packet = std::move(encoded);
      packet.format = format_;
      taken = sink(std::move(packet)) && taken;
    });
  } catch (const ffmpeg::Error& error) {
    ++lost_;
    RestartEncoder(error.what());
  }
  return taken;
}

// Loses what the encoder still holds.
void AudioPassthrough::RestartEncoder(const std::string& reason) {
  ForgetEncoder();
  SayOnce("a part of its audio is not in the outputs: " + reason);
  try {
    encoder_ = std::make_unique<AudioEncoder>(*format_->parameters);
  } catch (const ffmpeg::Error&) {
    format_.reset();
    form_.reset();  // the next packet decides again
  }
}

void AudioPassthrough::ForgetEncoder() {
  lost_ += encoder_ ? encoder_->repaired() : 0;
  encoder_.reset();
}

bool AudioPassthrough::Take(const AudioSamples& samples, const Sink& sink) {
  NoteDecoded(samples);
  return Encode(
      [&](const AudioEncoder::PacketSink& take) {
        encoder_->Push(*samples.frame, samples.start, take);
      },
      sink);
}

bool AudioPassthrough::Finish(const Sink& sink) {
  const bool taken =
      Encode([&](const AudioEncoder::PacketSink& take) { encoder_->Finish(take); }, sink);
  ForgetEncoder();
  return taken;
}

}  // namespace host
