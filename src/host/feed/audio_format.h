// The formats of compressed audio: that of an audio track in the outputs, and its media type.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "host/ffmpeg/handles.h"
#include "host/units.h"
#include "platform/baseclasses/mtype.h"
#include "platform/os/mutex.h"

struct AVPacket;

namespace host {

// AAC, MPEG audio, AC-3 and E-AC-3 pass through untouched; everything else is encoded to AAC for
// the outputs.
inline bool PassesThrough(AVCodecID codec) {
  switch (codec) {
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_MP1:
    case AV_CODEC_ID_MP2:
    case AV_CODEC_ID_MP3:
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3:
      return true;
    default:
      return false;
  }
}

// The kinds that the composer's audio pins accept.
enum class AudioKind { kAac, kMpeg1Or2, kMp3, kAc3, kEac3 };

struct AudioDescription {
  AudioKind kind = AudioKind::kAac;
  int sampleRate = 48'000;  // hertz
  int channels = 2;
  int bytesPerSecond = 0;            // 0 when not known
  std::vector<std::uint8_t> config;  // of AAC: its AudioSpecificConfig
};

// A WAVEFORMATEX, followed by the config:
//   AAC                raw AAC (0x00FF); packets with or without their ADTS headers
//   MPEG layers I, II  MPEG-1 audio payload (0x0050)
//   MP3                MEDIASUBTYPE_MPEG1Payload with the wave format tag 0x0055
//   AC-3, E-AC-3       MEDIASUBTYPE_DOLBY_AC3, MEDIASUBTYPE_DOLBY_DDPLUS
CMediaType AudioType(const AudioDescription& description);
// Whether the type is that of compressed audio of one of these kinds.
bool IsAudioType(const AM_MEDIA_TYPE& type);

// The format of a track in an output. AAC always has its AudioSpecificConfig as extra data, also
// when its packets have ADTS headers (hasAdtsHeaders), so that every container can describe it.
struct AudioFormat {
  ffmpeg::Parameters parameters;
  bool hasAdtsHeaders = false;
  std::string language;  // ISO 639, empty when not known
};

// AAC in raw packets, as the host encodes it. sampleRate is changed to the nearest one of AAC;
// seven channels, or more than eight, become two. Throws ffmpeg::Error.
std::shared_ptr<const AudioFormat> AacFormat(int sampleRate, int channels,
                                             const std::string& language);
// The format of a stream that passes through, also by its first packet, if given; null when the
// stream does not tell enough, such as AAC with neither headers nor config.
std::shared_ptr<const AudioFormat> PassedFormat(const AVCodecParameters& parameters,
                                                const AVPacket* packet,
                                                const std::string& language);
// Whether packets of one format fit unchanged into a track of the other.
bool SameTrack(const AudioFormat& a, const AudioFormat& b);
// Updates the parameters of a stream by one of its packets: for AAC, by the config in its side
// data; for MPEG audio and AC-3, by layer, rate and channels in its header. A demuxer reads these
// at the beginning of a stream only.
void TakeFromPacket(const AVPacket& packet, AVCodecParameters& parameters);
// The same for a media type.
AudioDescription Describe(const AudioFormat& format);

// The fixed part of a packet's ADTS header, up to the channel configuration; 0 without one.
std::uint32_t AdtsHeader(const AVPacket& packet);

// The format of a channel's track, fixed once for a whole run by the first to need it: the channel,
// when its source is open, or an output that has to begin. What the channel sends afterwards is in
// this format, even if its source changes. Shared by the channel and the outputs; any thread, one
// lock.
class AudioTrack {
 public:
  // Fixes the proposed format, unless one is fixed already. Returns the fixed format.
  std::shared_ptr<const AudioFormat> Fix(std::shared_ptr<const AudioFormat> proposed);
  // Null until it is fixed.
  std::shared_ptr<const AudioFormat> format() const;

  enum class State {
    kUnknown,   // no source has been opened
    kSilent,    // the source that was opened has no audio
    kExpected,  // it has audio, whose format is known with its first packet
    kFixed,     // the format is fixed, permanently
  };
  State state() const;
  // A source has been opened.
  void Announce(bool hasAudio);
  // While the channel is muted without silence: the outputs do not fill its track either.
  void LeaveEmpty(bool leave) { isLeftEmpty_.store(leave, std::memory_order_relaxed); }
  bool isLeftEmpty() const { return isLeftEmpty_.load(std::memory_order_relaxed); }

 private:
  std::atomic<bool> isLeftEmpty_{false};
  mutable os::Mutex lock_;
  std::shared_ptr<const AudioFormat> format_ GUARDED_BY(lock_);
  State state_ GUARDED_BY(lock_) = State::kUnknown;
};

}  // namespace host
