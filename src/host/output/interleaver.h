// Interleaver: brings the sound of all channels into the order of the pictures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/units.h"

namespace host {

// The composer shows a picture one second after its source and gives the sound at once, stamped one
// second ahead: when a picture comes, all sound that belongs before it is there. So the pictures
// lead, and a channel without sound never holds an output up, as it would where every track is
// waited for.
//
// When the composer re-synchronises a channel, the pictures that wait there move with it at once;
// so does the sound that waits here. Otherwise sound for a time for which other sound waits takes
// its place, and sound for a time that has been written is left out: the times of a track only
// grow.
//
// Owned and called by one output on its thread.
class Interleaver {
 public:
  using Write = std::function<void(std::size_t line, ffmpeg::Packet packet)>;

  explicit Interleaver(std::size_t lines) : lines_(lines) {}

  // shift: the wall's time minus the channel's own, for this packet.
  void Push(std::size_t line, ffmpeg::Packet packet, Time shift = 0);
  // Hands over what decodes before that time, the earliest first.
  void Release(Time before, const Write& write);

  // Packets that waited or came for a time that had sound already.
  std::uint64_t leftOut() const { return leftOut_; }

 private:
  struct Line {
    std::deque<ffmpeg::Packet> packets;  // in the order of their times
    Time shift = 0;                      // of the latest packet
    // The middle of the latest packet handed over; an earlier one would stand beside it.
    Time written = std::numeric_limits<Time>::min();
  };

  void Move(Line& line, Time by);

  std::vector<Line> lines_;
  std::uint64_t leftOut_ = 0;
};

}  // namespace host
