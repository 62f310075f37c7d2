// The form of the audio of one channel in the outputs.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/feed/audio_type.h"
#include "host/ffmpeg/handles.h"

struct AVPacket;

namespace host {

// What a track of an output is made of. AAC always has its AudioSpecificConfig as extra data, also
// when its packets carry ADTS headers (hasAdtsHeaders), so that every container can describe it.
struct AudioFormat {
  ffmpeg::Parameters parameters;
  bool hasAdtsHeaders = false;
  std::string language;  // ISO 639, empty when not known
};

// AAC in raw packets, as the host encodes it. sampleRate is brought to one that AAC knows; more
// than eight channels become two. Throws ffmpeg::Error.
std::shared_ptr<const AudioFormat> AacFormat(int sampleRate, int channels,
                                             const std::string& language);
// The format of a stream that passes through, told by its first packet where there is one; null
// when the stream does not say enough about itself, as AAC without headers and without config.
std::shared_ptr<const AudioFormat> PassedFormat(const AVCodecParameters& parameters,
                                                const AVPacket* packet,
                                                const std::string& language);
// Whether packets of one fit into a track of the other as they are.
bool SameTrack(const AudioFormat& a, const AudioFormat& b);
// Puts into the parameters of a stream what one of its packets says: of AAC the config beside the
// packet, of MPEG audio and AC-3 layer, rate and number of channels of the header. A demuxer looks
// at the beginning of a stream only.
void TakeFromPacket(const AVPacket& packet, AVCodecParameters& parameters);
// The same in the graph's words.
AudioDescription Describe(const AudioFormat& format);

// What a packet with an ADTS header says about its stream: the 28 bits of the fixed header; 0 for a
// packet without one.
std::uint32_t AdtsHeader(const AVPacket& packet);

// The format of a channel's track, decided once for a whole run by whoever has to know it first:
// the channel when its source is open, or an output that can wait no longer and begins. What the
// channel sends afterwards is in this format, however its source changes. Shared by the channel and
// the outputs; any thread, one lock.
class AudioTrack {
 public:
  // The proposed format if nothing was decided before, otherwise what was.
  std::shared_ptr<const AudioFormat> Fix(std::shared_ptr<const AudioFormat> proposed);
  // Null while nothing is decided.
  std::shared_ptr<const AudioFormat> format() const;

  enum class State {
    kUnknown,   // no source has been opened
    kSilent,    // the source that was opened has no audio
    kExpected,  // it has audio, whose format its first packet will tell
    kFixed,     // the format is decided, permanently
  };
  State state() const;
  // A source has been opened.
  void Announce(bool hasAudio);

 private:
  mutable std::mutex lock_;
  std::shared_ptr<const AudioFormat> format_;  // guarded by lock_
  State state_ = State::kUnknown;              // guarded by lock_
};

}  // namespace host
