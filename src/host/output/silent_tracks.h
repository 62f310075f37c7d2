// SilentTracks: audio for the tracks of an output while their channels give none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include "host/feed/audio_format.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// A track that is announced and carries nothing is trouble: players of transport streams do not
// learn what it is, a rendition of HLS has no playlist, or segments of one packet, MP4 cannot
// describe AC-3 without a packet of it. So silence in the track's own format goes into it from the
// start of the file or connection to the channel's first packet, and into every gap for which audio
// would come too late now. Shorter gaps stay as they are.
//
// Owned and called by one output on its thread.
class SilentTracks {
 public:
  // Times are those of the file or connection, which begins at 0.
  using Write = std::function<void(std::size_t channel, ffmpeg::Packet packet)>;

  // lateness: how far audio may stand behind the video that was written before it.
  explicit SilentTracks(Time lateness) : lateness_(lateness) {}

  // The next file begins after so much of the one before.
  void Restart(Time length);
  // A format that cannot be encoded stays without silence. A channel that has a track keeps it.
  void Add(std::size_t channel, const AudioFormat& format);
  // The video has come to that time: silence wherever there is no audio before it.
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
  std::map<std::size_t, Track> tracks_;  // by channel
};

}  // namespace host
