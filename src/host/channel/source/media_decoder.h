// MediaDecoder: turns the packets of a source's tracks into items.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <utility>

#include "host/channel/source/media_info.h"
#include "host/channel/source/packet_source.h"
#include "host/channel/source/source_clock.h"
#include "host/channel/source/source_connection.h"
#include "host/channel/source/stream_decoder.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// Brings the timestamps of all packets onto one clock that starts near 0 and continues through
// wraps, jumps and repeats (SourceClock), decodes them and gives the items in the order of the
// source: decoded frames, compressed audio packets, and after each packet its decoded samples.
//
// Owned and called by one reader on its thread.
class MediaDecoder {
 public:
  // Both outlive the decoder.
  MediaDecoder(const MediaSettings& settings, const PacketSource& input)
      : settings_(settings), input_(input) {}

  // Once the input is open.
  void StartClock();
  // Starts the track of this kind with this stream. frameDuration: of frames without a duration of
  // their own; 0 for audio. Throws ffmpeg::Error when there is no decoder for it.
  void Start(TrackKind kind, const AVStream& stream, Time frameDuration);
  // The track continues with another stream of the input. Throws MediaError.
  void Replace(TrackKind kind, const AVStream& stream);
  bool has(TrackKind kind) const { return track(kind).has_value(); }
  Time frameDuration(TrackKind kind) const { return track(kind)->frameDuration; }

  // A packet of the stream that the track reads, in the units of the stream. duration: 0 when not
  // known. Throws MediaError when the stream can no longer be decoded.
  void Decode(TrackKind kind, ffmpeg::Packet packet, Time duration);
  // At the end of the source: drains the decoders.
  void Drain();
  // The source begins again.
  void Restart();

  bool empty() const { return ready_.empty(); }
  MediaItem Take();
  // Frames or audio packets have been given since the source began.
  bool hasGiven() const { return hasGiven_; }
  // Frames have been given since the last call.
  bool TakeFrameGiven() { return std::exchange(frameGiven_, false); }
  // See MediaReader. The kind has a track.
  Time clockOffset(TrackKind kind) const { return clock_->offset(track(kind)->clockStream); }
  Time origin() const;
  Time wrapPeriod() const;
  // Since the last call.
  int TakeFrames() { return std::exchange(frames_, 0); }
  // Video arrives, but its first keyframe has not, or only keyframes are wanted.
  bool waitsForKeyframes() const;
  // Damaged packets that the decoders skipped.
  std::uint64_t damagedPackets() const;

  // How much of the video is decoded from now on, also by later decoders; see StreamDecoder.
  void SetStep(DecodeStep step);
  // Runs the decoding of each video packet in a turn; null: it runs at once.
  using InTurn = std::function<void(const std::function<void()>& decode)>;
  void TakeTurns(InTurn inTurn) { inTurn_ = std::move(inTurn); }

 private:
  struct Track {
    Track();

    std::size_t clockStream = 0;
    std::optional<StreamDecoder> decoder;
    Time frameDuration = 0;
    std::optional<Orientation> orientation;  // that its frames announce
    ItemTimes times;
    std::int64_t jumps = 0;      // of its timestamps
    std::optional<Time> latest;  // start of the latest frame
  };

  std::optional<Track>& track(TrackKind kind) { return tracks_[static_cast<std::size_t>(kind)]; }
  const std::optional<Track>& track(TrackKind kind) const {
    return tracks_[static_cast<std::size_t>(kind)];
  }
  // Makes a decoder for the stream, at the present step.
  void MakeDecoder(Track& track, const AVStream& stream);
  void DecodeVideo(Track& track, const AVPacket& packet);
  void DecodeAudio(Track& track, const AVPacket& packet);
  void GiveFrame(Track& track, ffmpeg::Frame frame);
  void GivePacket(Track& track, const AVPacket& packet, bool discontinuity);
  void GiveSamples(Track& track, ffmpeg::Frame frame);
  Orientation OrientationOf(Track& track, const AVFrame& frame) const;

  const MediaSettings& settings_;
  const PacketSource& input_;
  std::optional<SourceClock> clock_;
  std::array<std::optional<Track>, kTrackKinds.size()> tracks_;  // by TrackKind
  std::deque<MediaItem> ready_;                                  // the items of one packet, at most
  DecodeStep step_ = DecodeStep::kFull;                          // of the video
  InTurn inTurn_;
  bool hasGiven_ = false;
  bool frameGiven_ = false;
  int frames_ = 0;
};

}  // namespace host
