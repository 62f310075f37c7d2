// OutputSession: one opening of an output.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/feed/audio_encoder.h"
#include "host/feed/audio_format.h"
#include "host/output/interleaver.h"
#include "host/output/muxer.h"
#include "host/output/output_files.h"
#include "host/output/packet_queue.h"
#include "platform/os/mutex.h"

namespace host {

// From the first packet to the end of the connection, the file or, where a recording is cut, of its
// last file. The first packets are held back until the format of every channel's audio is known,
// but no longer than the format limit: then a channel that is still unknown gets a track of AAC, 48
// kHz, stereo, into which its audio is encoded if it comes. A channel whose source is known to have
// no audio gets no track, and neither does a source that was not opened, unless it is opened again
// (a live wall).
//
// What is written begins at time 0 with a keyframe, in every file. Where a recording is cut, the
// frames before the keyframe and the audio before its time are in the one file, all others in the
// next: joined they are what one file would hold.
//
// FLV is cut like a recording before its timestamps overflow.
//
// A file that holds nothing of use when the output fails is removed.
//
// Owned and called by an output on its thread, except Cancel.
class OutputSession {
 public:
  struct Track {
    std::string name;
    std::string language;  // where the source does not know; may be empty
    bool preferred = false;
    std::shared_ptr<AudioTrack> audio;
  };
  struct Settings {
    Muxer::Settings muxer;
    Ratio frameRate{25, 1};
    // How long to wait for the formats of the audio: live, from the first frame of the wall on;
    // rendered, in the output's own time.
    Time formatLimit = 5 * kSecond;
    bool waitForSources = false;       // also for those that are not open yet
    std::function<Time()> sinceStart;  // live: the time since the wall's first frame
    SegmentLimits segments;            // of a file
    Time keyFrameInterval = config::Output().keyFrameInterval;
    std::vector<Track> tracks;  // one for each channel; none: no audio is written
  };
  // What belongs to the output and outlives its sessions.
  struct Owner {
    RecordingFiles* files = nullptr;              // null: the output is no file
    std::function<void(const std::string&)> say;  // a sentence for the operator
    // Something has reached a target; file: its name, empty where it is none.
    std::function<void(const OutputSession& session, const std::string& file)> opened;
    // Skips the queue up to its newest keyframe; false when there is none. Null where everything is
    // to be written.
    std::function<bool()> skipToNewestKeyframe = nullptr;
    // Time that must be written before `opened` is called, unless the output ends first: after a
    // failure, so that a consumer that fails again at once does not count as open.
    Time openAfter = 0;
  };

  // video: of the encoder. counters: what is written and left out.
  OutputSession(const Settings& settings, const AVCodecParameters& video, OutputCounters& counters,
                Owner owner);
  ~OutputSession();

  // Opens the output when it is time. Throws ffmpeg::Error.
  void Take(TrackPacket packet);
  // Writes the rest and the end. Throws ffmpeg::Error.
  void Finish();
  // Any thread: bytes in the file that is written.
  std::int64_t fileBytes();
  // Any thread: ends a blocking call permanently.
  void Cancel();

  bool started() const { return muxer_ != nullptr; }
  // Files or connections that were opened.
  std::uint64_t targets() const { return targets_; }
  // Time written.
  Time length() const { return interleaver_.length(); }

 private:
  bool CanStart(const TrackPacket& packet);
  void Hold(TrackPacket packet);
  // Drops what piled up until the target was open, but for the newest keyframe and what follows.
  void SkipHeld();
  void WriteHeld();
  bool IsWaitedFor(const Track& track) const;
  void Start();
  void AddTracks(Muxer& muxer);
  void AddTrack(Muxer& muxer, std::size_t channel, const AudioFormat& format);
  bool CutsBefore(const AVPacket& keyframe);
  // The file ends before the keyframe, and the next one begins with it.
  void Cut(const AVPacket& keyframe);
  void Write(TrackPacket packet);
  void WriteAudio(TrackPacket packet);
  void Mux(int track, ffmpeg::Packet packet);
  void WriteSilence(std::size_t channel, ffmpeg::Packet packet);
  void NoteOpen();
  void FinishTarget();

  const Settings& settings_;
  const AVCodecParameters& video_;
  OutputCounters& counters_;
  const Owner owner_;
  std::deque<TrackPacket> held_;
  std::optional<Time> firstFrame_;  // of those held
  // Exchanged by the output's thread under cancelLock_, which others take to use it.
  std::unique_ptr<Muxer> muxer_;
  os::Mutex cancelLock_;
  bool cancelled_ GUARDED_BY(cancelLock_) = false;
  std::string file_;        // that is written, or a playlist; empty where it is none
  bool isOneFile_ = false;  // ... and no playlist
  bool isNamed_ = false;    // the file has its name from the owner's files
  bool isOpen_ = false;     // the owner was notified of the target
  std::size_t videoTrack_ = 0;
  std::vector<std::size_t> channels_;                    // that have a track, in their order
  std::vector<std::optional<std::size_t>> audioTracks_;  // of the muxer, for each channel
  std::map<std::size_t, AudioTranscoder>
      transcoders_;  // of channels in formats that the container does not take
  Interleaver interleaver_;
  SilentTracks silence_;
  SegmentCutter cutter_;
  std::uint64_t targets_ = 0;
  const Interleaver::Write mux_ = [this](int track, ffmpeg::Packet packet) {
    Mux(track, std::move(packet));
  };
  const SilentTracks::Write writeSilence_ = [this](std::size_t channel, ffmpeg::Packet packet) {
    WriteSilence(channel, std::move(packet));
  };
};

}  // namespace host
