#include "tools/simulation/simulated_source.h"

#include <algorithm>
#include <cmath>

namespace simulation {

namespace {

using host::kSecond;
using Kind = Fault::Kind;

// The number of the frame that is decoded i-th, with `reorder` B-frames between two others.
std::uint32_t DisplayNumber(std::uint32_t i, std::uint32_t reorder) {
  if (reorder == 0 || i == 0) {
    return i;
  }
  const std::uint32_t group = (i - 1) / (reorder + 1);
  const std::uint32_t inGroup = (i - 1) % (reorder + 1);
  return inGroup == 0 ? (group + 1) * (reorder + 1) : group * (reorder + 1) + inGroup;
}

Time FrameTime(const SourceModel& model) {
  return host::FrameDuration(model.frameRate);
}

}  // namespace

bool IsLoud(Time time) {
  return time / kSecond % 2 == 0;
}

SimulatedSource::SimulatedSource(const SourceModel& model, std::uint64_t seed, Time begin)
    : model_(model),
      dice_(seed),
      origin_(begin),
      base_(model.firstTimestamp),
      skew_(model.audioSkew) {
  Generate();
}

Time SimulatedSource::VideoTime(const SourceModel& model, std::uint32_t number) {
  return host::FrameStart(number, model.frameRate);
}

Time SimulatedSource::AudioTime(const SourceModel& model, std::uint32_t number) {
  return host::FloorDivided(host::Wide{number} * model.samplesPerPacket * kSecond,
                            model.sampleRate);
}

const Fault* SimulatedSource::FaultAt(Time time, Kind kind) const {
  for (const Fault& fault : model_.faults) {
    if (fault.kind == kind && fault.at <= time && time < fault.at + fault.length) {
      return &fault;
    }
  }
  return nullptr;
}

void SimulatedSource::Restart(Time at) {
  ++epoch_;
  origin_ = at;
  base_ = dice_.Between(0, model_.wrapPeriod > 0 ? model_.wrapPeriod / 2 : 1000 * kSecond);
  // Either may be the first. A muxer that has its audio earlier begins in the midst of it.
  const bool audioFirst = dice_.OneIn(2);
  videoCount_ = audioFirst ? static_cast<std::uint32_t>(model_.reorder + 1) : 0;
  audioCount_ = 0;
  while (AudioTime(model_, audioCount_) + skew_ < 0) {
    ++audioCount_;
  }
}

// What is sent before that time never arrives. The sender's clock is correct.
void SimulatedSource::SkipTo(Time time) {
  const Time inEpoch = time - origin_;
  const auto group = static_cast<std::uint32_t>(model_.reorder + 1);
  const auto frame = static_cast<std::uint32_t>(host::FrameAt(inEpoch, model_.frameRate));
  videoCount_ = (frame / group + 1) * group + 1;
  const auto packets = host::FloorDivided(host::Wide{inEpoch} * model_.sampleRate,
                                          kSecond * model_.samplesPerPacket);
  audioCount_ = static_cast<std::uint32_t>(packets) + 1;
}

// The next packet that arrives at all.
void SimulatedSource::Generate() {
  for (;;) {
    const auto reorder = static_cast<std::uint32_t>(model_.reorder);
    const std::uint32_t frame = DisplayNumber(videoCount_, reorder);
    const Time frameTime = FrameTime(model_);
    const Time videoDts = VideoTime(model_, videoCount_) - (reorder > 0 ? frameTime : 0);
    const Time audioPts = AudioTime(model_, audioCount_);
    SimulatedPacket packet;
    packet.isVideo = !model_.audio || videoDts <= audioPts + skew_;
    const Time key = packet.isVideo ? videoDts : audioPts + skew_;
    const Time sent =
        origin_ +
        static_cast<Time>(std::llround(static_cast<double>(key) / (1 + model_.drift * 1e-6)));
    // What begins before this packet is sent.
    if (fault_ < model_.faults.size() && model_.faults[fault_].at <= sent) {
      const Fault& fault = model_.faults[fault_++];
      switch (fault.kind) {
        case Kind::kPause:
          origin_ += fault.length;
          break;
        case Kind::kRestart:
          Restart(fault.at + fault.length);
          break;
        case Kind::kRemuxed:
          skew_ = std::clamp(model_.audioSkew + fault.amount, -9 * kSecond / 10, 9 * kSecond / 10);
          Restart(fault.at + fault.length);
          break;
        case Kind::kReplaced:
          audioAllowed_ = false;
          Restart(fault.at + kSecond);
          break;
        case Kind::kJump:
          base_ += fault.amount;
          break;
        case Kind::kDamage:
          damageBit_ = fault.amount;
          break;
        case Kind::kAsleep:
          SkipTo(fault.at + fault.length);
          break;
        default:
          break;
      }
      continue;
    }
    if (!audioAllowed_ && FaultAt(sent, Kind::kReplaced) == nullptr) {
      // The sender with audio is there again.
      audioAllowed_ = true;
      Restart(sent + kSecond);
      continue;
    }
    if (packet.isVideo) {
      packet.id = {epoch_, frame};
      packet.dts = base_ + videoDts;
      packet.pts = base_ + VideoTime(model_, frame);
      packet.duration = frameTime;
      ++videoCount_;
    } else {
      packet.id = {epoch_, audioCount_};
      packet.dts = packet.pts = base_ + audioPts + model_.divergence;
      packet.duration = AudioTime(model_, 1);
      ++audioCount_;
    }
    if (Transmit(packet, sent)) {
      next_ = packet;
      return;
    }
  }
}

// The network between sender and reader. False when it loses the packet.
bool SimulatedSource::Transmit(SimulatedPacket& packet, Time sent) {
  if ((packet.isVideo && FaultAt(sent, Kind::kVideoAway) != nullptr) ||
      (!packet.isVideo && (FaultAt(sent, Kind::kAudioAway) != nullptr || !audioAllowed_)) ||
      (FaultAt(sent, Kind::kLoss) != nullptr && dice_.OneIn(3))) {
    return false;
  }
  if (damageBit_) {
    const Time flip = (std::int64_t{1} << *damageBit_) * 1000 / 9;
    packet.dts += flip;
    packet.pts += flip;
    damageBit_.reset();
  }
  if (model_.wrapPeriod > 0) {
    packet.dts = (packet.dts % model_.wrapPeriod + model_.wrapPeriod) % model_.wrapPeriod;
    packet.pts = (packet.pts % model_.wrapPeriod + model_.wrapPeriod) % model_.wrapPeriod;
  }
  Time arrival = sent;
  if (model_.burst > 0) {
    // About every second burst comes in two halves.
    const Time lump = arrival / model_.burst;
    const bool halved = (static_cast<std::uint64_t>(lump) * 2654435761U >> 7 & 1) != 0;
    const Time half = lump * model_.burst + model_.burst / 2;
    arrival = halved && arrival < half ? half : (lump + 1) * model_.burst;
  }
  if (model_.jitter > 0) {
    arrival += dice_.Between(0, model_.jitter);
  }
  if (const Fault* const stall = FaultAt(arrival, Kind::kStall)) {
    arrival = stall->at + stall->length;
  }
  packet.arrival = latestArrival_ = std::max(arrival, latestArrival_);
  return true;
}

}  // namespace simulation
