// Scenario: what happens to a simulated wall, all of it decided by one seed.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "host/channel/source/media_info.h"
#include "host/units.h"

namespace simulation {

using host::Ratio;
using host::Time;

struct Fault {
  enum class Kind {
    kStall,      // the network stops; what was sent meanwhile comes in a burst
    kPause,      // the sender stops and continues where it was
    kRestart,    // the sender is away and comes back with other timestamps
    kRemuxed,    // ... and with its audio muxed later by `amount` than before
    kReplaced,   // by a sender without audio, and at the end by one with audio again
    kJump,       // the timestamps jump by amount
    kAudioAway,  // no audio for a while
    kVideoAway,  // no video for a while
    kDamage,     // bit `amount` of the timestamp of one packet is flipped
    kLoss,       // a third of the packets is lost
    kReopened,   // the connection fails and is opened again
    kHidden,     // its window is not shown
    kStarved,    // the channel's streaming thread gets no processor
    kAsleep,     // the whole machine is suspended; what is sent meanwhile is lost
  };
  Kind kind = Kind::kStall;
  Time at = 0;  // on the wall's clock
  Time length = 0;
  std::int64_t amount = 0;
};

struct SourceModel {
  host::SourceKind kind = host::SourceKind::kPush;
  Ratio frameRate{25, 1};
  int reorder = 0;  // B-frames between two frames that refer to each other
  bool audio = true;
  int sampleRate = 48'000;
  int samplesPerPacket = 1024;
  Time audioSkew = 0;   // by how much its audio is muxed later than the video of the same time
  Time divergence = 0;  // by how much the timestamps of its audio are wrong
  Time burst = 0;       // sends in bursts of that length
  Time jitter = 0;      // of the network, per packet
  double drift = 0;     // of its clock, parts per million
  Time firstTimestamp = 0;
  Time wrapPeriod = 0;        // of its timestamps; 0: none
  std::vector<Fault> faults;  // in the order of time, not overlapping
};

struct OutputModel {
  int encoderDelay = 0;       // frames
  std::vector<Fault> stalls;  // its consumer takes nothing
};

struct Scenario {
  std::uint64_t seed = 0;
  Ratio canvasRate{25, 1};
  Time delay = host::kSecond;  // of the wall
  Time begin = 0;              // the wall has been running for that long
  Time length = 0;
  std::vector<SourceModel> sources;
  std::vector<OutputModel> outputs;  // the first one never stalls
  std::vector<Fault> sleeps;         // kAsleep, in the order of time; every source has them, too
};

Scenario MakeScenario(std::uint64_t seed, Time length);
// A wall at 59.94 frames per second that is awake around every wrap of a timestamp of its sources
// and at the times at which products of times and rates leave 64 bits, and asleep in between.
Scenario MakeLongScenario(Time length);
// Readable text, a line for each source, output and fault.
std::string Describe(const Scenario& scenario);

// Random numbers that are the same on every machine, unlike those of the library's distributions.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : engine_(seed) {}
  // least to most, both included.
  std::int64_t Between(std::int64_t least, std::int64_t most) {
    return least +
           static_cast<std::int64_t>(engine_() % static_cast<std::uint64_t>(most - least + 1));
  }
  bool OneIn(int n) { return Between(1, n) == 1; }
  template <typename T>
  const T& Of(const std::vector<T>& choices) {
    return choices[static_cast<std::size_t>(Between(0, std::ssize(choices) - 1))];
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace simulation
