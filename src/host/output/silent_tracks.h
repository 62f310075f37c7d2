// SilentTracks: audio for the tracks of an output whose channel has given none yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include "host/channel/sound/audio_format.h"
#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// A track that is announced and carries nothing is trouble: players of transport streams do not
// learn what it is, a rendition of HLS has no playlist, MP4 cannot describe AC-3 without a packet
// of it. So silence in the track's own format goes into it from the start of the file or connection
// to the channel's first packet. What comes later is the channel's: its gaps stay gaps.
//
// Owned and called by one output on its thread.
class SilentTracks {
 public:
  // Times are those of the file or connection, which begins at 0.
  using Write = std::function<void(std::size_t channel, ffmpeg::Packet packet)>;

  // The next file begins.
  void Restart();
  // A format that cannot be encoded stays without silence.
  void Add(std::size_t channel, const AudioFormat& format);
  // Silence in all tracks up to that time.
  void FillTo(Time before, const Write& write);
  // The channel has a packet: silence before it, none afterwards. False when it is for a time at
  // which there is silence already and has to be left out.
  bool EndBefore(std::size_t channel, const AVPacket& packet, const Write& write);

 private:
  struct Track {
    ffmpeg::Packet packet;
    std::int64_t samples = 0;  // in the packet
    int sampleRate = 0;        // hertz
    std::int64_t count = 0;    // packets written
  };

  static Time TimeOf(const Track& track, std::int64_t count);
  static void Fill(std::size_t channel, Track& track, Time before, const Write& write);

  std::map<std::size_t, Track> tracks_;  // by channel
};

}  // namespace host
