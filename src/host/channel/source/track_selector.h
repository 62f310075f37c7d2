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
// language, a commentary. Another stream takes the place of the one that is read
//
//   - when the container has withdrawn that one: after some packets;
//   - otherwise after kSilence without a packet of it: one audio packet may last longer than many
//     of another stream. Of several streams one in the wanted language is preferred;
//   - when it is the stream that was chosen at first, and has returned for kStable.
//
// Silence is measured by what the other streams send meanwhile, not by a clock: sources are read
// faster and slower than they play. Their packets are kept until then (at most kMaxKeptBytes),
// since the first one is mostly a keyframe, and the next may be far away.
//
// Owned and called by one reader on its thread.
class StreamFailover {
 public:
  static constexpr Time kSilence = 2 * kSecond;
  static constexpr Time kStable = kSecond;
  static constexpr int kPacketsAfterWithdrawal = 10;
  static constexpr std::size_t kMaxKeptBytes = std::size_t{16} << 20;

  struct Candidacy {
    Time duration = 0;  // of the packet
    bool isInWantedLanguage = false;
    bool replacesWithdrawn = false;  // the container has the stream, and no longer the one read
  };

  // chosen: index of the stream that is read from the beginning.
  explicit StreamFailover(int chosen) : chosen_(chosen) {}

  bool IsChosen(int stream) const { return stream == chosen_; }
  // A packet of the stream that is read.
  void OnPacket(Time duration);
  // A packet of another stream of the kind. True when that one is to be read from now on, beginning
  // with TakeKept.
  bool OnOther(const AVPacket& packet, const Candidacy& candidacy);
  // The packets of that stream since the latest one of the stream that was read.
  std::vector<ffmpeg::Packet> TakeKept(int stream);

 private:
  struct Candidate {
    Time received =
        0;          // of the chosen stream: since it returned; otherwise: in the present silence
    Time read = 0;  // what was read of the present stream since the latest packet
    int packets = 0;
    bool isInWantedLanguage = false;
    std::deque<ffmpeg::Packet> kept;
    std::size_t keptBytes = 0;
  };

  bool IsPreceded(const Candidate& candidate) const;

  int chosen_;
  std::map<int, Candidate> candidates_;  // by stream index
};

// Chooses the best video and the wanted audio when the source is open, both of the wanted program
// where one is wanted, and watches the other
// streams from then on: a new stream may replace the one that is read, and one of a kind that the
// source did not have begins.
//
// Owned and called by one reader on its thread.
class TrackSelector {
 public:
  // All three outlive the selector.
  TrackSelector(const MediaSettings& settings, PacketSource& input, MediaDecoder& decoder)
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
  // How often the name of the service has changed since the source was opened.
  std::uint64_t renames() const { return renames_; }

 private:
  struct Track {
    StreamFailover failover;
    std::string language{};  // that is wanted: of the settings, or of the stream that was chosen
  };

  void ChooseProgram();
  // Whether it may be a track: of the wanted program.
  bool IsWanted(int index) const;
  // As the container has it at present: of the wanted program, or of the one that the track is in.
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
  std::map<int, StreamDecoder> awaited_;  // by index: streams of a kind that has no track
  std::uint64_t replacements_ = 0;
  config::ProgramChoice program_;  // that is wanted, by its number
  std::uint64_t renames_ = 0;
  int packetsToName_ = 0;  // until the name of the service is looked at again
};

}  // namespace host
