// TrackSelector: which streams of a source are its video and its audio.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/source/media_decoder.h"
#include "host/channel/source/media_info.h"
#include "host/channel/source/packet_source.h"
#include "host/channel/source/source_connection.h"
#include "host/channel/source/stream_decoder.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// A source may begin further streams while it is read: its service in another form, a second
// language, a commentary. Another stream replaces the one that is read
//
//   - after some packets, if the container has withdrawn the one that is read;
//   - otherwise after kSilence without a packet of it: one audio packet may last longer than many
//     of another stream. Of several streams, one in the wanted language is preferred;
//   - if it is the stream that was chosen first, once it has returned for kStable.
//
// Silence is measured by what the other streams send meanwhile, not by a clock: sources are read
// faster and slower than they play. The packets of each are kept until then (kMaxKeptBytes), since
// the first one is usually a keyframe, and the next keyframe may be far away.
//
// Owned and called by one reader on its thread.
class StreamFailover {
 public:
  static constexpr Time kSilence = 2 * kSecond;
  static constexpr Time kStable = kSecond;
  static constexpr int kPacketsAfterWithdrawal = 10;
  static constexpr std::size_t kMaxKeptBytes = std::size_t{32} << 20;  // of all streams

  struct Candidacy {
    Time duration = 0;  // of the packet
    bool isInWantedLanguage = false;
    bool replacesWithdrawn = false;  // the container lists the stream, but not the one that is read
  };

  // chosen: index of the stream that is read from the beginning.
  explicit StreamFailover(int chosen) : chosen_(chosen) {}

  bool IsChosen(int stream) const { return stream == chosen_; }
  // A packet of the stream that is read.
  void OnPacket(Time duration);
  // A packet of another stream of the kind. True when that stream is to be read from now on,
  // beginning with TakeKept.
  bool OnOther(const AVPacket& packet, const Candidacy& candidacy);
  // The packets of this stream since the latest one of the stream that was read.
  std::vector<ffmpeg::Packet> TakeKept(int stream);

 private:
  struct Candidate {
    // Of the chosen stream, since it returned; of others, in the present silence.
    Time received = 0;
    Time read = 0;  // of the stream that is read, since the latest packet of this one
    int packets = 0;
    bool isInWantedLanguage = false;
    std::deque<ffmpeg::Packet> kept;
    std::size_t keptBytes = 0;
  };

  bool IsPreceded(const Candidate& candidate) const;
  // Keeps no more than kMaxKeptBytes: the stream with the most of them loses its oldest packets.
  void LimitKept();

  int chosen_;
  std::map<int, Candidate> candidates_;  // by stream index
};

// Chooses the best video and the wanted audio when the source is open (of the wanted program, if
// any), and watches the other streams from then on: a stream may replace the one that is read, and
// one of a kind that the source did not have may begin.
//
// Owned and called by one reader on its thread.
class TrackSelector {
 public:
  // All three outlive the selector.
  TrackSelector(const MediaSettings& settings, PacketSource& input, MediaDecoder& decoder)
      : settings_(settings), input_(input), decoder_(decoder) {}

  // Once the input is open. Throws MediaError when there is nothing to show.
  void Choose();
  // Has a packet of a track decoded; detects from packets of other streams that a stream ends,
  // begins or returns. Throws MediaError.
  void Handle(ffmpeg::Packet packet);
  // The input has replaced its demuxer.
  void OnReplacedDemuxer();

  const MediaInfo& info() const { return info_; }
  // Null without audio.
  const AVCodecParameters* audioParameters() const { return audioParameters_.get(); }
  // How often another stream has replaced the one that was read.
  std::uint64_t replacements() const { return replacements_; }
  // How often the name of the service has changed since the source was opened.
  std::uint64_t renames() const { return renames_; }

 private:
  struct Track {
    StreamFailover failover;
    std::string language{};  // wanted: that of the settings, or of the stream that was chosen
  };

  void ChooseProgram();
  // Whether the stream may be a track: it belongs to the wanted program.
  bool IsWanted(int index) const;
  // As the container has it now: of the wanted program, or of that of the track.
  std::string CurrentServiceName() const;
  void FollowServiceName();
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
  PacketSource& input_;
  MediaDecoder& decoder_;
  MediaInfo info_;
  ffmpeg::Parameters audioParameters_;
  std::array<std::optional<Track>, kTrackKinds.size()> tracks_;  // by TrackKind
  unsigned knownStreams_ = 0;                                    // when the source was opened
  std::map<int, StreamDecoder> awaited_;  // of streams of a kind that has no track, by index
  std::uint64_t replacements_ = 0;
  config::ProgramChoice program_;  // the wanted one, by its number
  std::uint64_t renames_ = 0;
  int packetsToName_ = 0;  // until the name of the service is read again
};

}  // namespace host
