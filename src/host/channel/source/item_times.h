// ItemTimes: when the frames, packets and samples of one track begin.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

#include "host/units.h"

namespace host {

// Within a track times only grow, but where the source's timestamps jumped: what would begin before
// the item before it begins just behind that. What has no time of its own follows the one before
// it. Times on the source's continuous clock; one reader, no lock.
class ItemTimes {
 public:
  struct Span {
    Time start = 0;
    Time duration = 0;
    bool discontinuity = false;  // the first since the source's timestamps jumped
  };

  // A decoded frame; duration: of a frame of the source; jumps: how often the timestamps had jumped
  // before its packet.
  Span Frame(std::optional<Time> given, Time duration, std::int64_t jumps) {
    const bool jumped = jumps > jumps_;
    jumps_ = std::max(jumps, jumps_);
    Time start = given.value_or(next_);
    if (last_ && !jumped) {
      start = std::max(start, *last_ + 1);
    }
    return Note({start, duration, jumped});
  }
  // A compressed audio packet. Several may begin together.
  Time Packet(Time given) {
    lastPacket_ = lastPacket_ ? std::max(given, *lastPacket_) : given;
    return *lastPacket_;
  }
  // Decoded audio samples.
  Span Samples(std::optional<Time> given, Time duration) {
    return Note({given.value_or(next_), duration, false});
  }

 private:
  Span Note(Span span) {
    last_ = span.start;
    next_ = span.start + span.duration;
    return span;
  }

  Time next_ = 0;  // end of the latest frame or samples
  std::optional<Time> last_;
  std::optional<Time> lastPacket_;
  std::int64_t jumps_ = 0;
};

}  // namespace host
