// AudioTranscoder: the audio of a channel in AAC, for containers that cannot hold its own format.
#pragma once

#include <functional>
#include <memory>

#include "host/feed/audio_encoder.h"
#include "host/feed/audio_format.h"
#include "host/ffmpeg/handles.h"

namespace host {

// FLV, and RTMP with it, holds AAC only of what channels send. Decodes a track and encodes it in
// one or two channels. Owned and called by one output on its thread.
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
