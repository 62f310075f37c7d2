#include "tools/simulation/scenario.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "host/config/value_text.h"
#include "host/config/wall.h"

namespace simulation {

namespace {

using host::kMillisecond;
using host::kSecond;
using Kind = Fault::Kind;

constexpr Time kTransportStreamPeriod = (std::int64_t{1} << 33) * 1000 / 9;

const char* NameOf(Kind kind) {
  switch (kind) {
    case Kind::kStall:
      return "stall";
    case Kind::kPause:
      return "pause";
    case Kind::kRestart:
      return "restart";
    case Kind::kRemuxed:
      return "muxed otherwise";
    case Kind::kReplaced:
      return "replaced by a sender without audio";
    case Kind::kJump:
      return "jump";
    case Kind::kAudioAway:
      return "audio away";
    case Kind::kVideoAway:
      return "video away";
    case Kind::kDamage:
      return "damaged timestamp";
    case Kind::kLoss:
      return "loss";
    case Kind::kReopened:
      return "reopened";
    case Kind::kHidden:
      return "hidden";
    case Kind::kStarved:
      return "no_free_buffer";
    case Kind::kAsleep:
      return "asleep";
  }
  return "";
}

Fault MakeFault(Dice& dice, const SourceModel& source) {
  static const std::vector<Kind> kPush{
      Kind::kStall,     Kind::kPause,     Kind::kRestart, Kind::kReplaced, Kind::kJump,
      Kind::kAudioAway, Kind::kVideoAway, Kind::kDamage,  Kind::kLoss,     Kind::kReopened,
      Kind::kStarved,   Kind::kHidden,    Kind::kRemuxed};
  static const std::vector<Kind> kPull{Kind::kStall, Kind::kPause, Kind::kAudioAway,
                                       Kind::kReopened, Kind::kStarved};
  Fault fault;
  fault.kind = dice.Of(source.kind == host::SourceKind::kPush ? kPush : kPull);
  switch (fault.kind) {
    case Kind::kStall:
    case Kind::kPause:
    case Kind::kRestart:
    case Kind::kVideoAway:
    case Kind::kReopened:
    case Kind::kHidden:
      fault.length = dice.Between(100, 9000) * kMillisecond;
      break;
    case Kind::kRemuxed:
      fault.length = dice.Between(100, 9000) * kMillisecond;
      // With bursts, or a clock that is wrong by a percent, there would be no room for it.
      fault.amount = source.burst > 0 || source.jitter > 0 || std::abs(source.drift) > 200
                         ? 0
                         : dice.Between(-900, 900) * kMillisecond;
      break;
    case Kind::kReplaced:
    case Kind::kAudioAway:
      fault.length = dice.Between(100, 30'000) * kMillisecond;
      break;
    case Kind::kLoss:
      fault.length = dice.Between(100, 3000) * kMillisecond;
      break;
    case Kind::kStarved:
      fault.length = dice.Between(20, 1500) * kMillisecond;
      break;
    case Kind::kJump:
      fault.amount = dice.Between(-40'000, 40'000) * kMillisecond;
      break;
    case Kind::kDamage:
      fault.amount = dice.Between(0, 32);
      break;
    case Kind::kAsleep:
      break;
  }
  return fault;
}

SourceModel MakeSource(Dice& dice, Time begin, Time length) {
  static const std::vector<Ratio> kRates{{25, 1},       {25, 1}, {50, 1}, {30000, 1001},
                                         {60000, 1001}, {30, 1}, {10, 1}, {24, 1},
                                         {1, 1},        {15, 1}, {60, 1}};
  struct Audio {
    int rate;
    int samples;
  };
  static const std::vector<Audio> kAudio{
      {48'000, 1024}, {48'000, 1152}, {48'000, 1536}, {44'100, 1024}, {32'000, 1152}};
  SourceModel source;
  source.kind = dice.OneIn(5) ? host::SourceKind::kPull : host::SourceKind::kPush;
  source.frameRate = dice.Of(kRates);
  source.reorder = static_cast<int>(dice.Between(0, 3));
  if (source.frameRate.value() < 10) {
    source.reorder = 0;  // reordering would take seconds
  }
  source.audio = !dice.OneIn(8);
  const Audio audio = dice.Of(kAudio);
  source.sampleRate = audio.rate;
  source.samplesPerPacket = audio.samples;
  source.wrapPeriod = source.kind == host::SourceKind::kPush ? kTransportStreamPeriod : 0;
  source.firstTimestamp = dice.Between(0, kTransportStreamPeriod / 2);
  if (source.wrapPeriod > 0 && dice.OneIn(3)) {
    source.firstTimestamp = source.wrapPeriod - dice.Between(0, length);
  }
  if (dice.OneIn(10)) {
    source.divergence = dice.Between(-30'000, 30'000) * kMillisecond;
  }
  // Each of these alone uses up most of the room that a wall has for a source.
  switch (dice.Between(0, 4)) {
    case 0: {
      // If frames are as rare as the bursts, the length of the bursts cannot be seen; and the delay
      // of B-frames is added.
      const Time reordering = (source.reorder + 1) * host::FrameDuration(source.frameRate);
      if (source.frameRate.value() > 1) {
        source.burst = std::max<Time>(
            dice.Between(100, 1300) * kMillisecond - std::max<Time>(reordering - kSecond / 10, 0),
            kSecond / 10);
      }
      break;
    }
    case 1:
      source.audioSkew = dice.Between(-900, 900) * kMillisecond;
      break;
    case 2:
      source.jitter = dice.Between(1, 300) * kMillisecond;
      break;
    default:
      break;
  }
  if (dice.OneIn(2)) {
    const bool hasRoom = source.burst == 0 && source.audioSkew == 0;
    const std::int64_t worst = hasRoom && dice.OneIn(5) ? 10'000 : 200;
    source.drift = static_cast<double>(dice.Between(-worst, worst));
  }
  if (!dice.OneIn(3)) {
    for (Time at = dice.Between(20'000, 60'000) * kMillisecond; at < length - 20 * kSecond;) {
      Fault fault = MakeFault(dice, source);
      fault.at = begin + at;
      source.faults.push_back(fault);
      at += fault.length + dice.Between(3'000, 120'000) * kMillisecond;
    }
  }
  return source;
}

std::string Seconds(Time time) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.3f s", static_cast<double>(time) / kSecond);
  return text;
}

constexpr Time kMaxAudioSkew = 9 * kSecond / 10;

// A wall with a shorter delay has less room for irregular sources: frames that wait take a part of
// it.
void Shorten(Time& time, Time delay) {
  constexpr Time kUsed = 3 * kSecond / 20;
  time = time * ((delay - kUsed) / kMillisecond) / ((kSecond - kUsed) / kMillisecond);
}

void TakeDelay(Scenario& scenario) {
  Dice dice(scenario.seed + 1'000'000);
  if (dice.OneIn(2)) {
    return;
  }
  scenario.delay = host::config::DelayInFrames(
      dice.OneIn(2) ? host::config::kMinDelay : dice.Between(200, 999) * kMillisecond,
      scenario.canvasRate);
  for (SourceModel& source : scenario.sources) {
    for (Time* const time : {&source.audioSkew, &source.burst, &source.jitter}) {
      Shorten(*time, scenario.delay);
    }
    // The levels of late audio need some of the delay, too.
    source.audioSkew = source.audioSkew * 3 / 4;
    source.drift *= static_cast<double>(scenario.delay) / kSecond;
    for (Fault& fault : source.faults) {
      if (fault.kind == Kind::kRemuxed) {
        // As the source is muxed afterwards.
        Time most = kMaxAudioSkew;
        Shorten(most, scenario.delay);
        most = most * 3 / 4;
        Shorten(fault.amount, scenario.delay);
        fault.amount =
            std::clamp(source.audioSkew + fault.amount * 3 / 4, -most, most) - source.audioSkew;
      }
    }
  }
}

}  // namespace

Scenario MakeScenario(std::uint64_t seed, Time length) {
  static const std::vector<Ratio> kCanvasRates{{25, 1}, {25, 1}, {30000, 1001}, {50, 1}};
  Dice dice(seed);
  Scenario scenario;
  scenario.seed = seed;
  scenario.length = length;
  scenario.canvasRate = dice.Of(kCanvasRates);
  if (dice.OneIn(4)) {
    scenario.begin = dice.Between(0, 10 * 365 * 24 * std::int64_t{3600}) * kSecond;
  }
  const std::int64_t sources = dice.Between(2, 4);
  for (std::int64_t i = 0; i < sources; ++i) {
    scenario.sources.push_back(MakeSource(dice, scenario.begin, length));
  }
  scenario.outputs.push_back({static_cast<int>(dice.Between(0, 40)), {}});
  OutputModel slow{static_cast<int>(dice.Between(0, 40)), {}};
  for (Time at = dice.Between(10, 100) * kSecond; at < length;
       at += dice.Between(20, 300) * kSecond) {
    slow.stalls.push_back({Kind::kStall, scenario.begin + at, dice.Between(1, 30) * kSecond, 0});
    at += slow.stalls.back().length;
  }
  scenario.outputs.push_back(slow);
  TakeDelay(scenario);
  return scenario;
}

Scenario MakeLongScenario(Time length) {
  // A channel needs a while after each sleep before it can be checked.
  constexpr Time kBefore = 16 * kSecond;
  constexpr Time kAfter = 30 * kSecond;
  constexpr Time kDay = 24 * 3600 * kSecond;
  constexpr Time kMilliseconds32 = (std::int64_t{1} << 32) * kMillisecond;
  Scenario scenario;
  scenario.length = length;
  scenario.canvasRate = {60000, 1001};
  SourceModel source;
  source.kind = host::SourceKind::kPush;
  source.frameRate = {60000, 1001};
  source.reorder = 2;
  source.wrapPeriod = kTransportStreamPeriod;
  source.firstTimestamp = source.wrapPeriod - kBefore;
  scenario.sources.push_back(source);
  source.frameRate = {30000, 1001};
  source.samplesPerPacket = 1152;
  source.reorder = 0;
  source.firstTimestamp += 4 * kSecond;
  scenario.sources.push_back(source);
  source.kind = host::SourceKind::kPull;
  source.frameRate = {25, 1};
  source.samplesPerPacket = 1024;
  source.wrapPeriod = kMilliseconds32;
  source.firstTimestamp = 0;
  scenario.sources.push_back(source);
  scenario.outputs = {{0, {}}, {40, {}}};

  std::vector<Time> awake{kBefore, 178 * kDay, 356 * kDay, length - kAfter};
  for (const SourceModel& each : scenario.sources) {
    for (Time wrap = each.wrapPeriod - each.firstTimestamp; wrap < length;
         wrap += each.wrapPeriod) {
      awake.push_back(wrap);
    }
  }
  std::sort(awake.begin(), awake.end());
  Time asleepFrom = kBefore + kAfter;
  for (const Time at : awake) {
    const Time until = std::min(at, length) - kBefore;
    if (until > asleepFrom) {
      scenario.sleeps.push_back({Kind::kAsleep, asleepFrom, until - asleepFrom, 0});
    }
    asleepFrom = std::max(asleepFrom, at + kAfter);
  }
  for (SourceModel& each : scenario.sources) {
    each.faults = scenario.sleeps;
  }
  return scenario;
}

std::string Describe(const Scenario& scenario) {
  std::string text =
      "seed " + std::to_string(scenario.seed) + ": " + Seconds(scenario.length) + " from " +
      Seconds(scenario.begin) + " on, at " + std::to_string(scenario.canvasRate.num) + "/" +
      std::to_string(scenario.canvasRate.den) + ", delay " + Seconds(scenario.delay) + "\n";
  for (std::size_t i = 0; i < scenario.sources.size(); ++i) {
    const SourceModel& source = scenario.sources[i];
    text += "  source " + std::to_string(i) +
            (source.kind == host::SourceKind::kPush ? ", pushed" : ", pulled") + ", " +
            std::to_string(source.frameRate.num) + "/" + std::to_string(source.frameRate.den) +
            " frames, reorder " + std::to_string(source.reorder);
    if (source.audio) {
      text += ", audio " + std::to_string(source.sampleRate) + "/" +
              std::to_string(source.samplesPerPacket) + " muxed " + Seconds(source.audioSkew) +
              " late, wrong by " + Seconds(source.divergence);
    }
    text += ", bursts " + Seconds(source.burst) + ", jitter " + Seconds(source.jitter) +
            ", drift " + std::to_string(static_cast<int>(source.drift)) + " ppm, from " +
            Seconds(source.firstTimestamp) + "\n";
    for (const Fault& fault : source.faults) {
      text += "    " + Seconds(fault.at) + ": " + NameOf(fault.kind) + " " + Seconds(fault.length) +
              " (" + std::to_string(fault.amount) + ")\n";
    }
  }
  for (const OutputModel& output : scenario.outputs) {
    text += "  output, encoder delay " + std::to_string(output.encoderDelay);
    for (const Fault& stall : output.stalls) {
      text += ", stalls at " + Seconds(stall.at) + " for " + Seconds(stall.length);
    }
    text += "\n";
  }
  return text;
}

}  // namespace simulation
