// AudioPassthrough: the audio of one opening of a source on its path to the outputs.
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

// Packets of a codec that passes through stay untouched if they fit into the channel's track.
// Otherwise the track's format is encoded from the decoded samples instead: for audio of other
// codecs, for audio whose form differs from the track's (the source was opened again, or changed
// while it was read, as its packets or only the decoder show), and for audio that came too late to
// determine the track's format. Each cause is reported once.
//
// Owned and called by one reader on its thread.
class AudioPassthrough {
 public:
  // Returns false when no more can be taken.
  using Sink = std::function<bool(AudioPacket)>;
  using Say = std::function<void(const std::string&)>;

  // track is shared with the outputs; fallbackLanguage names the track where the source does not.
  AudioPassthrough(std::shared_ptr<AudioTrack> track, std::string fallbackLanguage, Say say);

  // The source is open: fixes the track's format, if it is known before the first packet.
  // parameters and info are null without audio.
  void Announce(const AVCodecParameters* parameters, const AudioInfo* info);
  // Both in the reader's order: the samples of a packet after the packet. parameters, info: of the
  // packet's stream.
  bool Take(AudioPacket packet, const AVCodecParameters& parameters, const AudioInfo& info,
            const Sink& sink);
  bool Take(const AudioSamples& samples, const Sink& sink);
  // At the end of the opening: sends what an encoder still holds.
  bool Finish(const Sink& sink);

  // Frames of decoded audio that could not be encoded as they were: dropped, or with samples that
  // are not numbers replaced by silence.
  std::uint64_t lost() const { return lost_ + (encoder_ ? encoder_->repaired() : 0); }

 private:
  // The form of the audio, as its packets announce it.
  struct Form {
    int codec = 0;
    int sampleRate = 0;
    int channels = 0;
    std::uint32_t header = 0;          // of AAC with ADTS headers
    std::vector<std::uint8_t> config;  // of AAC without ADTS headers
    bool operator==(const Form&) const = default;
  };

  // The form of the decoded audio.
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
  ffmpeg::Parameters parameters_;  // announced_, updated by what packets have said since
  std::optional<Form> form_;
  // The latest form that passed through; how it was decoded at first, determined over decodedFor_;
  // whether it is now decoded differently; and how many consecutive frames contradict that.
  std::optional<Form> passedForm_;
  Decoded decoded_;
  Time decodedFor_ = 0;
  bool isDecodedOtherwise_ = false;
  int framesAgainst_ = 0;
  std::shared_ptr<const AudioFormat> format_;  // of the packets that are sent; null: none are
  std::unique_ptr<AudioEncoder> encoder_;      // while the audio is encoded
  std::uint64_t lost_ = 0;                     // without those of encoder_
  std::string said_;
};

}  // namespace host
