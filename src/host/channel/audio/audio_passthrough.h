// The audio of one opening of a source, on its way to the outputs.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/media_info.h"
#include "host/feed/audio_encoder.h"
#include "host/feed/audio_format.h"

namespace host {

// Packets of a kind that passes through pass untouched, if they fit into the channel's track. All
// others are left out, and the track's format is encoded from the decoded samples instead: audio of
// another kind, audio whose form differs from that with which the track began (the source was
// opened again, or changed while it ran, as its packets say or only the decoder shows), and audio
// that came too late for the track to begin with its form. What happens is said once for each
// cause.
//
// Owned and called by one reader on its thread.
class AudioPassthrough {
 public:
  // False when nothing more can be taken.
  using Sink = std::function<bool(AudioPacket)>;
  using Say = std::function<void(const std::string&)>;

  // track is shared with the outputs; fallbackLanguage names the track where the source does not.
  AudioPassthrough(std::shared_ptr<AudioTrack> track, std::string fallbackLanguage, Say say);

  // The source is open: the track may begin in its form, where that is known before a packet has
  // come. parameters and info are null without audio.
  void Announce(const AVCodecParameters* parameters, const AudioInfo* info);
  // Both in the order in which the reader gives them; the samples of a packet come after it.
  // parameters, info: of the stream that the packet belongs to.
  bool Take(AudioPacket packet, const AVCodecParameters& parameters, const AudioInfo& info,
            const Sink& sink);
  bool Take(const AudioSamples& samples, const Sink& sink);
  // The end of the opening: what an encoder still holds.
  bool Finish(const Sink& sink);

  // Frames of decoded audio that could not be encoded as they were: left out, or with samples that
  // are no numbers replaced by silence.
  std::uint64_t lost() const { return lost_ + (encoder_ ? encoder_->repaired() : 0); }

 private:
  // Changes with the form of the audio.
  struct Form {
    int codec = 0;
    int sampleRate = 0;
    int channels = 0;
    std::uint32_t header = 0;          // of AAC with headers
    std::vector<std::uint8_t> config;  // of AAC without
    bool operator==(const Form&) const = default;
  };

  // What the decoder makes of it.
  struct Decoded {
    int sampleRate = 0;
    int channels = 0;
    bool operator==(const Decoded&) const = default;
  };

  static Form FormOf(const AVCodecParameters& parameters, std::uint32_t header);
  void Decide(const AudioPacket& packet, const AVCodecParameters& parameters, const Form& form,
              const AudioInfo& info);
  bool PassesAs(const Form& form) const;
  void NoteDecoded(const AudioSamples& samples);
  const std::string& LanguageOf(const AudioInfo& info) const;
  bool Encode(const std::function<void(const AudioEncoder::PacketSink&)>& work, const Sink& sink);
  void RestartEncoder(const std::string& reason);
  void ForgetEncoder();
  void SayOnce(const std::string& text);

  const std::shared_ptr<AudioTrack> track_;
  const std::string fallbackLanguage_;
  const Say say_;
  std::optional<Form> announced_;
  ffmpeg::Parameters parameters_;  // those announced, with what packets have said since
  std::optional<Form> form_;
  // The latest that passed through, how it was decoded at first, and for how long that was looked
  // at; whether it is decoded otherwise now, and how many frames in a row say the contrary.
  std::optional<Form> passedForm_;
  Decoded decoded_;
  Time decodedFor_ = 0;
  bool isDecodedOtherwise_ = false;
  int framesAgainst_ = 0;
  std::shared_ptr<const AudioFormat> format_;  // of the packets that go out; null: none do
  std::unique_ptr<AudioEncoder> encoder_;      // while the audio is encoded
  std::uint64_t lost_ = 0;                     // with former encoders
  std::string said_;
};

}  // namespace host
