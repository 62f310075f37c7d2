// OutputPass: one opening of an output.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/channel/sound/audio_format.h"
#include "host/output/interleaver.h"
#include "host/output/muxer.h"
#include "host/output/packet_queue.h"

namespace host {

// From the first packet to the end of the file or connection. The first packets are held back until
// the form of every channel's sound is known, but no longer than the format limit: then a channel
// that is still unknown gets a track of AAC, 48 kHz, stereo, into which it will be encoded should
// it come. A channel whose source is known to have no sound gets no track, and neither does a
// source that was not opened, unless it is opened again (a live wall).
//
// What is written begins at time 0 with a picture that can be decoded alone.
//
// Owned and called by an output on its thread, except Cancel.
class OutputPass {
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
    Time formatLimit = 5 * kSecond;  // of the wall's time
    bool waitForSources = false;     // also for those that are not open yet
    std::vector<Track> tracks;       // one for each channel; none: no sound is written
  };
  using Say = std::function<void(const std::string&)>;

  // video: of the encoder. counters: what is written and left out; they outlive the session. say
  // gets sentences for the operator.
  OutputPass(const Settings& settings, const AVCodecParameters& video, OutputCounters& counters,
             Say say);
  ~OutputPass();

  // Opens the output when it is time. Throws ffmpeg::Error.
  void Take(TrackPacket packet);
  // Writes the rest and the end. Throws ffmpeg::Error.
  void Finish();
  // Any thread: ends a blocking call for good.
  void Cancel();

  bool started() const { return muxer_ != nullptr; }
  // Time written.
  Time length() const { return interleaver_.length(); }

 private:
  bool CanStart(const TrackPacket& packet);
  void Hold(TrackPacket packet);
  void WriteHeld();
  bool IsWaitedFor(const Track& track) const;
  void Start();
  void AddTracks(Muxer& muxer);
  void AddTrack(Muxer& muxer, std::size_t channel, const AudioFormat& format);
  void Write(TrackPacket packet);
  void Mux(int track, ffmpeg::Packet packet);

  const Settings& settings_;
  const AVCodecParameters& video_;
  OutputCounters& counters_;
  const Say say_;
  std::deque<TrackPacket> held_;
  std::optional<Time> firstPicture_;  // of those held
  std::unique_ptr<Muxer> muxer_;      // exchanged under cancelLock_
  std::mutex cancelLock_;
  bool cancelled_ = false;  // guarded by cancelLock_
  std::size_t videoTrack_ = 0;
  std::vector<std::optional<std::size_t>> soundTracks_;  // of the muxer, for each channel
  Interleaver interleaver_;
  const Interleaver::Write mux_ = [this](int track, ffmpeg::Packet packet) {
    Mux(track, std::move(packet));
  };
};

}  // namespace host
