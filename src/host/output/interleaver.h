// Interleaves the tracks of an output and fills them with silence.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "host/feed/audio_format.h"
#include "host/ffmpeg/handles.h"
#include "host/output/packet_queue.h"
#include "host/units.h"

namespace host {

// The composer shows a frame one second after its source and gives the audio at once, with
// timestamps one second ahead: when a frame comes, all audio that belongs before it is there. So
// the video leads, and an output never waits for a channel without audio. Audio that comes too late
// for its place among the video, or is too far ahead of it, is left out and counted.
//
// When the composer re-synchronises a channel, the frames that wait there move with it at once; so
// does the audio that waits here. Otherwise new audio replaces waiting audio of the same time, and
// audio for a time that has been written is left out: the timestamps of a track only increase.
//
// What comes out begins at time 0 with a keyframe, in every file. Owned and called by one output on
// its thread; times in 100 ns.
class Interleaver {
 public:
  // How far audio may be behind the video that was written before it, where players allow it.
  static constexpr Time kMaxLateness = kSecond / 2;
  // Audio is ahead of the video by one second and by what the video encoder holds back.
  static constexpr Time kMaxLead = 20 * kSecond;

  // track: OutputCounters::kVideo or the number of the channel.
  using Write = std::function<void(int track, ffmpeg::Packet packet)>;

  // counters outlive the interleaver; it counts what it leaves out. lateness: how far audio may be
  // behind the video that was written before it.
  explicit Interleaver(OutputCounters& counters, Time lateness = kMaxLateness);
  // What still waits is left out.
  ~Interleaver();
  Interleaver(const Interleaver&) = delete;
  Interleaver& operator=(const Interleaver&) = delete;

  // The next frame of the mosaic: hands over the audio before it, the earliest first, and then it.
  void PushVideo(ffmpeg::Packet packet, const Write& write);
  // offset: the wall's time minus the channel's own, for this packet.
  void PushAudio(std::size_t channel, ffmpeg::Packet packet, Time offset);
  // A file ends before the keyframe of that time, which comes next: hands over the audio before it.
  // What follows begins at time 0 again. Returns the length of the file.
  Time Restart(Time keyframe, const Write& write);
  // Hands over the rest of the audio, up to the end of the video.
  void Finish(const Write& write);

  // The end of the video in this file.
  Time end() const { return InFile(end_); }
  // A time of the wall in this file.
  Time InFile(Time time) const { return base_ ? time - *base_ : 0; }
  // The length of the video that was handed over, of all files.
  Time length() const { return end_ - start_; }

 private:
  struct Track {
    std::deque<ffmpeg::Packet> packets;  // in the order of their times
    std::optional<Time> offset;          // of the latest packet
    // The middle of the latest packet handed over; an earlier packet would overlap it.
    Time written = std::numeric_limits<Time>::min();
  };

  void Move(std::size_t channel, Time by);
  void LeaveOut(std::size_t channel) { ++counters_.of(static_cast<int>(channel)).leftOut; }
  void Release(Time before, const Write& write);

  OutputCounters& counters_;
  const Time lateness_;
  std::vector<Track> tracks_;
  // All on the wall's clock.
  std::optional<Time> base_;  // becomes 0 in the file
  Time newestVideo_ = 0;      // decoding time
  Time start_ = 0;            // of the first file
  Time end_ = 0;              // of the video so far
};

// An empty track is a problem: players of transport streams cannot identify its codec, a rendition
// of HLS has no playlist, or segments of one packet, and MP4 cannot describe AC-3 without a packet
// of it. So silence in the track's own format is written into it from the start of the file or
// connection to the channel's first packet, and into every gap for which audio would come too late
// now. Shorter gaps stay as they are, and so do those that the operator asked for.
//
// Owned and called by one output on its thread.
class SilentTracks {
 public:
  // Times are those of the file or connection, which begins at 0.
  using Write = std::function<void(std::size_t channel, ffmpeg::Packet packet)>;

  using IsLeftEmpty = std::function<bool(std::size_t channel)>;

  // lateness: how far audio may be behind the video that was written before it. isLeftEmpty:
  // whether a track that has begun is to carry nothing for now.
  SilentTracks(Time lateness, IsLeftEmpty isLeftEmpty)
      : lateness_(lateness), isLeftEmpty_(std::move(isLeftEmpty)) {}

  // The next file begins; length: of the one before.
  void Restart(Time length);
  // A format that cannot be encoded gets no silence. A channel that has a track keeps it.
  void Add(std::size_t channel, const AudioFormat& format);
  // The video has reached that time: writes silence wherever there is no audio before it.
  void FillTo(Time video, const Write& write);
  // The file ends at that time: the same, without waiting for audio that is late.
  void FillToEnd(Time end, const Write& write);
  // The channel has a packet: silence before it, none afterwards. False when it is for a time at
  // which there is silence already and has to be left out.
  bool EndBefore(std::size_t channel, const AVPacket& packet, const Write& write);

 private:
  struct Track {
    ffmpeg::Packet packet;
    std::int64_t samples = 0;  // in the packet
    int sampleRate = 0;        // hertz
    bool hasBegun = false;     // the channel has given audio
    bool isSilent = true;
    Time from = 0;           // where the silence begins
    std::int64_t count = 0;  // packets of it
    Time end = 0;            // of what was written
  };

  static void Fill(std::size_t channel, Track& track, Time before, const Write& write);

  const Time lateness_;
  const IsLeftEmpty isLeftEmpty_;
  std::map<std::size_t, Track> tracks_;  // by channel
};

}  // namespace host
