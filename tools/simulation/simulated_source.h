// SimulatedSource: the packets of one sender, and when they arrive.
#pragma once

#include <deque>
#include <optional>

#include "tools/simulation/scenario.h"

namespace simulation {

// Identifies a frame or a packet of audio, wherever it is seen again.
struct ContentId {
  std::uint32_t epoch = 0;   // counts senders and their restarts
  std::uint32_t number = 0;  // of the frame or packet in its epoch

  bool operator==(const ContentId&) const = default;
  auto operator<=>(const ContentId&) const = default;
};

struct SimulatedPacket {
  bool isVideo = false;
  ContentId id;
  Time arrival = 0;  // on the wall's clock
  Time dts = 0;      // as the container has them
  Time pts = 0;
  Time duration = 0;
};

// Audio is loud and silent in turn, a second each; time: of the audio in its epoch.
bool IsLoud(Time time);

// Packets in the order of the mux. Everything follows from the model and the seed.
class SimulatedSource {
 public:
  // begin: when it starts to send, on the wall's clock.
  SimulatedSource(const SourceModel& model, std::uint64_t seed, Time begin);

  // The next packet to arrive.
  const SimulatedPacket& Next() const { return next_; }
  void Pop() { Generate(); }

  // Time of a frame or packet in its epoch.
  static Time VideoTime(const SourceModel& model, std::uint32_t number);
  static Time AudioTime(const SourceModel& model, std::uint32_t number);

 private:
  void Generate();
  bool Transmit(SimulatedPacket& packet, Time sent);
  void Restart(Time at);
  void SkipTo(Time time);
  const Fault* FaultAt(Time time, Fault::Kind kind) const;

  const SourceModel& model_;
  Dice dice_;
  std::uint32_t epoch_ = 1;
  Time origin_;  // the wall's time at the time 0 of the epoch
  Time base_;    // timestamp at the time 0 of the epoch
  Time skew_;    // of the audio in the mux
  bool audioAllowed_ = true;
  std::uint32_t videoCount_ = 0;
  std::uint32_t audioCount_ = 0;
  std::size_t fault_ = 0;  // the next one whose beginning was not handled
  std::optional<std::int64_t> damageBit_;
  Time latestArrival_ = 0;
  SimulatedPacket next_;
};

}  // namespace simulation
