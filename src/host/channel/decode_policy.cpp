#include "host/channel/decode_policy.h"

#include <algorithm>
#include <array>
#include <utility>

namespace host {
namespace {

constexpr int kMax = kDecodeSteps - 1;

// Usual costs, of full decoding and scaling.
constexpr std::array<double, kDecodeSteps> kCosts{1.0, 0.95, 0.86, 0.60, 0.12};

constexpr double kOverload = 0.92;  // of the time
constexpr double kRelaxed = 0.65;   // expected at the lower step
constexpr int kOverloadedUntilNext = 2;
constexpr Time kMinRelief = 10 * kSecond;
constexpr Time kMaxRelief = 160 * kSecond;
// A lower step that lasts for that long has lasted.
constexpr Time kLasting = 30 * kSecond;
// Of the wall without a loss, until it asks for less.
constexpr Time kQuiet = 10 * kSecond;
// Longer than the distance of keyframes of nearly all senders.
constexpr Time kWithoutKeyframes = 12 * kSecond;
constexpr double kEnoughFrames = 0.9;

DecodeStep StepOf(int number) {
  return static_cast<DecodeStep>(std::clamp(number, 0, kMax));
}

}  // namespace

const char* NameOf(DecodeStep step) {
  constexpr std::array<const char*, kDecodeSteps> kNames{
      "full", "unreferenced_unfiltered", "unfiltered", "referenced_only", "keyframes_only"};
  return kNames[static_cast<std::size_t>(step)];
}

void WallPressure::Observe(Time now, std::uint64_t losses) {
  const int level = this->level();
  if (losses > losses_) {
    losses_ = losses;
    changedAt_ = now;
    level_.store(std::min(level + 1, kMaxLevel), std::memory_order_relaxed);
  } else if (level > 0 && now - changedAt_ >= kQuiet) {
    changedAt_ = now;
    level_.store(level - 1, std::memory_order_relaxed);
  }
}

void DecodePolicy::Opened(const Source& source, Time now) {
  source_ = source;
  most_ = DecodeStep::kKeyframesOnly;
  overloaded_ = 0;
  relaxedSince_ = framesAt_ = now;
  relief_ = std::max(relief_, kMinRelief);
}

void DecodePolicy::FollowLoad(Time now, double busy) {
  if (busy >= kOverload) {
    relaxedSince_ = now;
    if (++overloaded_ < kOverloadedUntilNext || own_ >= kMax) {
      return;
    }
    overloaded_ = 0;
    own_ = std::max(own_, static_cast<int>(step_)) + 1;
    own_ = std::min(own_, kMax);
    if (wasLowered_ && now - loweredAt_ < kLasting) {
      relief_ = std::min(2 * relief_, kMaxRelief);
    }
    wasLowered_ = false;
    return;
  }
  overloaded_ = 0;
  if (wasLowered_ && now - loweredAt_ >= kLasting) {
    relief_ = kMinRelief;
  }
  if (own_ == 0) {
    return;
  }
  const auto at = static_cast<std::size_t>(step_);
  const double expected = busy / kCosts[at] * kCosts[static_cast<std::size_t>(own_ - 1)];
  if (expected > kRelaxed) {
    relaxedSince_ = now;
  } else if (now - relaxedSince_ >= relief_) {
    --own_;
    relaxedSince_ = loweredAt_ = now;
    wasLowered_ = true;
  }
}

bool DecodePolicy::Take(DecodeStep step, std::string reason) {
  reason_ = step == DecodeStep::kFull ? std::string() : std::move(reason);
  return std::exchange(step_, step) != step;
}

bool DecodePolicy::Observe(Time now, const Load& load) {
  if (load.frames > 0) {
    framesAt_ = now;
  }
  if (setting_ == config::Decode::kFull) {
    return false;
  }
  // Dropping has to leave enough of a fast source, and keyframes have to come.
  if (step_ == DecodeStep::kReferencedOnly && load.frames < kEnoughFrames) {
    source_.isTwiceAsFast = false;
  }
  if (step_ == DecodeStep::kKeyframesOnly && now - framesAt_ >= kWithoutKeyframes) {
    most_ = DecodeStep::kReferencedOnly;
  }
  FollowLoad(now, load.busy);

  struct Wish {
    DecodeStep step;
    const char* reason;
  };
  const int pressed = load.isImportant ? load.pressure - kMax : load.pressure;
  Wish wish{DecodeStep::kFull, ""};
  const auto ask = [&wish](DecodeStep step, const char* reason) {
    if (step > wish.step) {
      wish = {step, reason};
    }
  };
  if (setting_ == config::Decode::kEconomy) {
    ask(DecodeStep::kReferencedOnly, "by the wall file");
  }
  if (setting_ == config::Decode::kKeyframes) {
    ask(DecodeStep::kKeyframesOnly, "by the wall file");
  }
  if (!load.isShown) {
    ask(DecodeStep::kKeyframesOnly, "its window is not shown");
  }
  if (source_.isTwiceAsFast) {
    ask(DecodeStep::kReferencedOnly, "the source has twice the rate of the canvas");
  }
  if (source_.isReduced) {
    ask(DecodeStep::kUnreferencedUnfiltered, "the window is at most half as large as the source");
  }
  ask(StepOf(own_), "decoding cannot keep up with the source");
  ask(StepOf(pressed), "the wall is late or its outputs drop frames");
  return Take(std::min(wish.step, most_), wish.reason);
}

}  // namespace host
