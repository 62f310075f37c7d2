// TransportPacer: says when the packets of a transport stream leave.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "host/units.h"

namespace host {

// An encoder gives a whole frame at once. Sent like that, a keyframe is a burst of a thousand
// packets at line rate, more than switches and receivers have room for. So what waits leaves evenly
// within the time from one PCR to the next, and what has piled up four times as fast. One thread at
// a time; it asks no clock.
class TransportPacer {
 public:
  static constexpr std::size_t kPacketSize = 188;  // bytes

  void Push(std::span<const std::uint8_t, kPacketSize> packet);
  bool empty() const { return packets_.empty(); }
  std::size_t bytes() const { return packets_.size() * kPacketSize; }
  // When the next packets leave, unless there are none.
  Time due() const { return due_; }
  // Takes the next packets, no more than so many. now: when they leave.
  std::vector<std::uint8_t> Take(std::size_t most, Time now);

 private:
  struct Packet {
    std::array<std::uint8_t, kPacketSize> bytes;
    bool hasPcr = false;
  };

  std::deque<Packet> packets_;
  std::optional<std::int64_t> pcr_;    // the latest, 90 kHz
  Time interval_ = 40 * kMillisecond;  // between the latest two
  std::size_t clocks_ = 0;             // packets with a PCR that wait
  Time end_ = 0;                       // when all that waited is to have left
  Time due_ = 0;
};

}  // namespace host
