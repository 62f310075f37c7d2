#include "host/feed/audio_format.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
}

#include "host/feed/audio_encoder.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

struct Kind {
  AudioKind kind;
  GUID subtype;
  WORD tag;
};

constexpr WORD kDolbyTag = 0x2000;
constexpr Kind kKinds[] = {
    {AudioKind::kAac, MEDIASUBTYPE_RAW_AAC1, 0x00FF},
    {AudioKind::kMpeg1Or2, MEDIASUBTYPE_MPEG1AudioPayload, 0x0050},
    {AudioKind::kMp3, MEDIASUBTYPE_MPEG1Payload, 0x0055},
    {AudioKind::kAc3, MEDIASUBTYPE_DOLBY_AC3, kDolbyTag},
    {AudioKind::kEac3, MEDIASUBTYPE_DOLBY_DDPLUS, kDolbyTag},
};

constexpr int kAdtsHeaderSize = 7;
constexpr int kMaxAacChannels = 8;

void SetExtraData(AVCodecParameters& parameters, const std::uint8_t* data, std::size_t size) {
  av_freep(&parameters.extradata);
  parameters.extradata_size = 0;
  parameters.extradata =
      static_cast<std::uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
  if (parameters.extradata == nullptr) {
    throw std::bad_alloc();
  }
  std::memcpy(parameters.extradata, data, size);
  parameters.extradata_size = static_cast<int>(size);
}

// Sets the config in the parameters by the ADTS header of a packet.
bool TakeConfig(const AVPacket& packet, AVCodecParameters& parameters) {
  const ffmpeg::PacketFilter filter = ffmpeg::MakePacketFilter("aac_adtstoasc", parameters);
  ffmpeg::Packet filtered = ffmpeg::RefPacket(packet);
  if (av_bsf_send_packet(filter.get(), filtered.get()) < 0 ||
      av_bsf_receive_packet(filter.get(), filtered.get()) < 0) {
    return false;
  }
  std::size_t size = 0;
  const std::uint8_t* const config =
      av_packet_get_side_data(filtered.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
  if (config == nullptr || size == 0) {
    return false;
  }
  SetExtraData(parameters, config, size);
  return true;
}

int SamplesPerFrame(const AVCodecParameters& parameters) {
  switch (parameters.codec_id) {
    case AV_CODEC_ID_MP1:
      return 384;
    case AV_CODEC_ID_MP2:
      return 1152;
    case AV_CODEC_ID_MP3:
      return parameters.sample_rate < 32'000 ? 576 : 1152;
    case AV_CODEC_ID_AC3:
      return 1536;
    default:
      return 0;  // variable
  }
}

bool IsMpegAudio(AVCodecID codec) {
  return codec == AV_CODEC_ID_MP1 || codec == AV_CODEC_ID_MP2 || codec == AV_CODEC_ID_MP3;
}

// By the header of an MPEG audio frame: eleven ones, two bits of version, two of layer.
AVCodecID LayerOf(const AVPacket& packet, AVCodecID announced) {
  if (packet.size < 4 || packet.data[0] != 0xFF || (packet.data[1] & 0xE0) != 0xE0) {
    return announced;
  }
  switch (packet.data[1] >> 1 & 3) {
    case 3:
      return AV_CODEC_ID_MP1;
    case 2:
      return AV_CODEC_ID_MP2;
    case 1:
      return AV_CODEC_ID_MP3;
    default:
      return announced;
  }
}

void SetChannels(AVCodecParameters& parameters, int channels) {
  if (parameters.ch_layout.nb_channels != channels) {
    av_channel_layout_uninit(&parameters.ch_layout);
    av_channel_layout_default(&parameters.ch_layout, channels);
  }
}

void TakeMpegHeader(const AVPacket& packet, AVCodecParameters& parameters) {
  constexpr int kRates[] = {44'100, 48'000, 32'000};
  const AVCodecID layer = LayerOf(packet, AV_CODEC_ID_NONE);
  if (layer == AV_CODEC_ID_NONE) {
    return;
  }
  const int version = packet.data[1] >> 3 & 3;  // 3: MPEG-1, 2: MPEG-2, 0: MPEG-2.5
  const int rate = packet.data[2] >> 2 & 3;
  if (version == 1 || rate == 3) {
    return;
  }
  parameters.codec_id = layer;
  parameters.sample_rate = kRates[rate] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
  SetChannels(parameters, packet.data[3] >> 6 == 3 ? 1 : 2);
}

// ATSC A/52: sync word; of AC-3 16 bits of checksum, rate and size, 5 bits of version (bsid), 3 of
// mode, 3 bits of channels (acmod); of E-AC-3 type, number and size, then rate, blocks, channels
// and the low-frequency channel in one byte, and the version.
void TakeAc3Header(const AVPacket& packet, AVCodecParameters& parameters) {
  constexpr int kRates[] = {48'000, 44'100, 32'000};
  constexpr int kChannels[] = {2, 1, 2, 3, 3, 4, 4, 5};
  if (packet.size < 8 || packet.data[0] != 0x0B || packet.data[1] != 0x77) {
    return;
  }
  const int version = packet.data[5] >> 3;
  const int rate = packet.data[4] >> 6;
  if (version <= 10) {
    const int mode = packet.data[6] >> 5;
    // Mix levels are between the channels and the low-frequency channel.
    const int skipped = (mode == 2                      ? 2
                         : (mode & 1) != 0 && mode != 1 ? 2
                                                        : 0) +
                        ((mode & 4) != 0 ? 2 : 0);
    const int low = (packet.data[6] << 8 | packet.data[7]) >> (12 - skipped) & 1;
    if (rate != 3) {
      parameters.sample_rate = kRates[rate] >> std::max(version - 8, 0);
      SetChannels(parameters, kChannels[mode] + low);
    }
  } else if (version <= 16) {
    const int half = packet.data[4] >> 4 & 3;
    const bool isIndependent = packet.data[2] >> 6 != 1;
    if (isIndependent && (rate != 3 || half != 3)) {
      parameters.sample_rate = rate != 3 ? kRates[rate] : kRates[half] / 2;
    }
  }
}

}  // namespace

CMediaType AudioType(const AudioDescription& description) {
  const Kind& kind = *std::find_if(std::begin(kKinds), std::end(kKinds),
                                   [&](const Kind& k) { return k.kind == description.kind; });
  WAVEFORMATEX format{};
  format.wFormatTag = kind.tag;
  format.nChannels = static_cast<WORD>(description.channels);
  format.nSamplesPerSec = static_cast<DWORD>(description.sampleRate);
  format.nAvgBytesPerSec = static_cast<DWORD>(description.bytesPerSecond);
  format.nBlockAlign = 1;
  format.cbSize = static_cast<WORD>(description.config.size());
  std::vector<BYTE> block(sizeof(format) + description.config.size());
  std::memcpy(block.data(), &format, sizeof(format));
  std::copy(description.config.begin(), description.config.end(), block.begin() + sizeof(format));
  CMediaType type(&MEDIATYPE_Audio);
  type.SetSubtype(&kind.subtype);
  type.SetFormatType(&FORMAT_WaveFormatEx);
  type.SetFormat(block.data(), static_cast<ULONG>(block.size()));
  type.SetVariableSize();
  return type;
}

bool IsAudioType(const AM_MEDIA_TYPE& type) {
  return type.majortype == MEDIATYPE_Audio &&
         std::any_of(std::begin(kKinds), std::end(kKinds),
                     [&](const Kind& kind) { return kind.subtype == type.subtype; });
}

void TakeFromPacket(const AVPacket& packet, AVCodecParameters& parameters) {
  if (IsMpegAudio(parameters.codec_id)) {
    TakeMpegHeader(packet, parameters);
  } else if (parameters.codec_id == AV_CODEC_ID_AC3 || parameters.codec_id == AV_CODEC_ID_EAC3) {
    TakeAc3Header(packet, parameters);
  } else if (parameters.codec_id == AV_CODEC_ID_AAC) {
    std::size_t size = 0;
    const std::uint8_t* const config =
        av_packet_get_side_data(&packet, AV_PKT_DATA_NEW_EXTRADATA, &size);
    if (config != nullptr && size > 0) {
      SetExtraData(parameters, config, size);
    }
  }
}

std::uint32_t AdtsHeader(const AVPacket& packet) {
  if (packet.size <= kAdtsHeaderSize || packet.data[0] != 0xFF || (packet.data[1] & 0xF6) != 0xF0) {
    return 0;
  }
  // Later bits differ from packet to packet.
  return static_cast<std::uint32_t>(packet.data[0]) << 24 |
         static_cast<std::uint32_t>(packet.data[1] & 0xFEU) << 16 |
         static_cast<std::uint32_t>(packet.data[2] & 0xFDU) << 8 | (packet.data[3] & 0xC0U);
}

std::shared_ptr<const AudioFormat> AacFormat(int sampleRate, int channels,
                                             const std::string& language) {
  constexpr int kRates[] = {8000,  11025, 12000, 16000, 22050, 24000,
                            32000, 44100, 48000, 64000, 88200, 96000};
  auto format = std::make_shared<AudioFormat>();
  format->parameters = ffmpeg::MakeParameters();
  AVCodecParameters& parameters = *format->parameters;
  parameters.codec_type = AVMEDIA_TYPE_AUDIO;
  parameters.codec_id = AV_CODEC_ID_AAC;
  parameters.sample_rate = *std::min_element(
      std::begin(kRates), std::end(kRates),
      [&](int a, int b) { return std::abs(a - sampleRate) < std::abs(b - sampleRate); });
  av_channel_layout_default(
      &parameters.ch_layout,
      channels >= 1 && channels <= kMaxAacChannels && channels != 7 ? channels : 2);
  format->parameters = AudioEncoder(parameters).parameters();
  format->language = language;
  return format;
}

std::shared_ptr<const AudioFormat> PassedFormat(const AVCodecParameters& parameters,
                                                const AVPacket* packet,
                                                const std::string& language) {
  auto format = std::make_shared<AudioFormat>();
  format->parameters = ffmpeg::CopyParameters(parameters);
  format->language = language;
  // The tag is that of the source's container.
  format->parameters->codec_tag = 0;
  // The delay is in the timestamps of the packets, which are those of the source.
  format->parameters->initial_padding = 0;
  if (IsMpegAudio(parameters.codec_id)) {
    // Transport streams have one type for all layers, so the packet decides.
    if (packet == nullptr) {
      return nullptr;
    }
    format->parameters->codec_id = LayerOf(*packet, parameters.codec_id);
  }
  // Some containers do not have the frame size, others need it.
  if (format->parameters->frame_size == 0) {
    format->parameters->frame_size = SamplesPerFrame(*format->parameters);
  }
  if (parameters.codec_id != AV_CODEC_ID_AAC) {
    return format;
  }
  format->hasAdtsHeaders = packet != nullptr && AdtsHeader(*packet) != 0;
  if (format->hasAdtsHeaders && !TakeConfig(*packet, *format->parameters)) {
    return nullptr;
  }
  return format->parameters->extradata_size > 0 ? format : nullptr;
}

bool SameTrack(const AudioFormat& a, const AudioFormat& b) {
  const AVCodecParameters& one = *a.parameters;
  const AVCodecParameters& other = *b.parameters;
  if (one.codec_id != other.codec_id || one.sample_rate != other.sample_rate) {
    return false;
  }
  // The other kinds describe themselves in every packet.
  return one.codec_id != AV_CODEC_ID_AAC ||
         (a.hasAdtsHeaders == b.hasAdtsHeaders && one.extradata_size == other.extradata_size &&
          std::equal(one.extradata, one.extradata + one.extradata_size, other.extradata));
}

AudioDescription Describe(const AudioFormat& format) {
  const AVCodecParameters& parameters = *format.parameters;
  AudioDescription description;
  switch (parameters.codec_id) {
    case AV_CODEC_ID_MP1:
    case AV_CODEC_ID_MP2:
      description.kind = AudioKind::kMpeg1Or2;
      break;
    case AV_CODEC_ID_MP3:
      description.kind = AudioKind::kMp3;
      break;
    case AV_CODEC_ID_AC3:
      description.kind = AudioKind::kAc3;
      break;
    case AV_CODEC_ID_EAC3:
      description.kind = AudioKind::kEac3;
      break;
    default:
      description.kind = AudioKind::kAac;
      description.config.assign(parameters.extradata,
                                parameters.extradata + parameters.extradata_size);
      break;
  }
  description.sampleRate = parameters.sample_rate;
  description.channels = parameters.ch_layout.nb_channels;
  description.bytesPerSecond = static_cast<int>(parameters.bit_rate / 8);
  return description;
}

std::shared_ptr<const AudioFormat> AudioTrack::Fix(std::shared_ptr<const AudioFormat> proposed) {
  const os::MutexLock guard(lock_);
  if (!format_) {
    format_ = std::move(proposed);
    state_ = State::kFixed;
  }
  return format_;
}

std::shared_ptr<const AudioFormat> AudioTrack::format() const {
  const os::MutexLock guard(lock_);
  return format_;
}

AudioTrack::State AudioTrack::state() const {
  const os::MutexLock guard(lock_);
  return state_;
}

void AudioTrack::Announce(bool hasAudio) {
  const os::MutexLock guard(lock_);
  if (state_ != State::kFixed) {
    state_ = hasAudio ? State::kExpected : State::kSilent;
  }
}

}  // namespace host
