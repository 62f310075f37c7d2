// AudioEncoder: encodes the audio of a channel; AudioTranscoder: decodes it first.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "host/feed/audio_format.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

struct AVCodecParameters;

namespace host {

// Takes frames of any format, rate and layout, resamples and mixes them, and encodes. The packets
// get timestamps from their frames: a gap in the audio stays a gap, and audio that overlaps earlier
// audio is dropped. Owned and called by one channel or output on its thread.
class AudioEncoder {
 public:
  // The packet's timestamps and duration are in units of 100 ns.
  using PacketSink = std::function<void(ffmpeg::Packet)>;

  // target: codec, sample rate and layout. Throws ffmpeg::Error when there is no encoder for it.
  explicit AudioEncoder(const AVCodecParameters& target);
  ~AudioEncoder();

  // start: of the first sample. Throws ffmpeg::Error.
  void Push(const AVFrame& frame, Time start, const PacketSink& sink);
  // Encodes what it still holds; nothing may be pushed afterwards.
  void Finish(const PacketSink& sink);

  // Of the output.
  ffmpeg::Parameters parameters() const;
  // Frames in which samples that are not numbers or far beyond full scale were replaced by silence.
  std::uint64_t repaired() const { return repaired_; }

 private:
  void Resample(const AVFrame& frame);
  void DrainResampler();
  void EncodeFull(const PacketSink& sink);
  // Fills up the next frame with silence and encodes it.
  void EncodeRest(const PacketSink& sink);
  void Send(const AVFrame* frame, const PacketSink& sink);
  // End of the audio that was pushed last.
  Time Expected() const;
  Time TimeOf(std::int64_t sample) const;

  ffmpeg::Codec codec_;
  ffmpeg::Resampler resampler_;
  ffmpeg::Frame source_;  // describes what the resampler was made for
  ffmpeg::SampleFifo fifo_;
  int frameSize_ = 0;
  std::optional<Time> base_;  // time of sample 0
  std::uint64_t repaired_ = 0;
  std::int64_t next_ = 0;  // number of the next sample for the encoder
};

// For compressed packets in units of 100 ns. Throws ffmpeg::Error when the codec cannot be decoded.
ffmpeg::Codec OpenAudioDecoder(const AVCodecParameters& parameters);

// A packet of silence as in the middle of a stream of this format, in units of 100 ns; null when
// the encoder gives none. Throws ffmpeg::Error when the format cannot be encoded.
ffmpeg::Packet EncodeSilence(const AudioFormat& format);

// Decodes a track and encodes it as AAC in one or two channels, for containers that take no other
// audio from channels. Owned and called by one output on its thread.
class AudioTranscoder {
 public:
  using Sink = std::function<void(ffmpeg::Packet)>;

  // Throws ffmpeg::Error when the format cannot be decoded.
  explicit AudioTranscoder(const AudioFormat& from);

  const AudioFormat& format() const { return *format_; }
  // Timestamps in units of 100 ns. A packet that cannot be decoded leaves a gap. Throws
  // ffmpeg::Error when the encoder fails.
  void Push(const AVPacket& packet, const Sink& sink);

 private:
  const std::shared_ptr<const AudioFormat> format_;
  ffmpeg::Codec decoder_;
  AudioEncoder encoder_;
  ffmpeg::Frame frame_;
};

}  // namespace host
