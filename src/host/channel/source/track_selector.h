// TrackSelector: which streams of a source are its video and its audio.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "host/channel/source/media_decoder.h"
#include "host/channel/source/media_info.h"
#include "host/channel/source/media_input.h"
#include "host/channel/source/stream_decoder.h"
#include "host/channel/source/stream_failover.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// Chooses the best video and the wanted audio when the source is open, and watches the other
// streams from then on: a new stream may replace the one that is read, and one of a kind that the
// source did not have begins.
//
// Owned and called by one reader on its thread.
class TrackSelector {
 public:
  // All three outlive the selector.
  TrackSelector(const MediaSettings& settings, MediaInput& input, MediaDecoder& decoder)
      : settings_(settings), input_(input), decoder_(decoder) {}

  // Once the input is open. Throws MediaError when there is nothing to show.
  void Choose();
  // Has a packet of a track decoded, and detects by the others that a stream ends, begins or
  // returns. Throws MediaError.
  void Handle(ffmpeg::Packet packet);
  // The input has replaced its demuxer.
  void OnReplacedDemuxer();

  const MediaInfo& info() const { return info_; }
  // Null without audio.
  const AVCodecParameters* audioParameters() const { return audioParameters_.get(); }
  // How often another stream has replaced the one that was read.
  std::uint64_t replacements() const { return replacements_; }

 private:
  struct Track {
    StreamFailover failover;
    std::string language{};  // that is wanted: of the settings, or of the stream that was chosen
  };

  std::optional<Track>& track(TrackKind kind) { return tracks_[static_cast<std::size_t>(kind)]; }
  void ChooseVideo(int index);
  void ChooseAudio(int index);
  // Leaves the reason in whyNot when the stream cannot be decoded.
  bool StartTrack(TrackKind kind, int index, Time frameDuration, std::string& whyNot);
  bool IsAwaited(const AVStream& stream) const;
  void HandleOther(const AVPacket& packet);
  void DetectReplacement(TrackKind kind, const AVPacket& packet);
  void DetectNewStream(TrackKind kind, AVStream& stream, const AVPacket& packet);
  void Replace(TrackKind kind, int index);
  bool IsWithdrawn(TrackKind kind) const;
  Time DurationOf(const AVPacket& packet) const;

  const MediaSettings& settings_;
  MediaInput& input_;
  MediaDecoder& decoder_;
  MediaInfo info_;
  ffmpeg::Parameters audioParameters_;
  std::array<std::optional<Track>, kTrackKinds.size()> tracks_;  // by TrackKind
  unsigned knownStreams_ = 0;                                    // when the source was opened
  std::map<int, StreamDecoder> awaited_;  // by index: streams of a kind that has no track
  std::uint64_t replacements_ = 0;
};

}  // namespace host
