#include "host/channel/decode_policy.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <thread>
#include <utility>

#include "platform/os/process.h"

namespace host {

namespace {

constexpr int kMax = kDecodeSteps - 1;

// Usual costs of the steps, as shares of full decoding and scaling.
constexpr std::array<double, kDecodeSteps> kCosts{1.0, 0.95, 0.86, 0.60, 0.12};

constexpr double kOverload = 0.92;  // of the time
constexpr double kRelaxed = 0.65;   // expected at the lower step
constexpr int kOverloadedUntilNext = 2;
constexpr Time kMinRelief = 10 * kSecond;
constexpr Time kMaxRelief = 160 * kSecond;
// A lower step that is kept for this long has lasted.
constexpr Time kLasting = 30 * kSecond;
// Without a loss for this long, the pressure falls by a level.
constexpr Time kQuiet = 10 * kSecond;
// Until it shows that a channel has gone up a step.
constexpr Time kYielding = 3 * kSecond;
// Longer than the keyframe interval of nearly all senders.
constexpr Time kWithoutKeyframes = 12 * kSecond;

constexpr const char* kCannotKeepUp = "decoding cannot keep up with the source";
constexpr const char* kWallLacks = "the wall is late or its outputs drop frames";

DecodeStep StepOf(int number) {
  return static_cast<DecodeStep>(std::clamp(number, 0, kMax));
}

constexpr Time kMeasureEvery = kSecond;
// A grant shows in the idle time by then: from keyframes only, a channel goes down a step only with
// its next keyframe.
constexpr Time kGrantShowsAfter = 4 * kSecond;
// Share of the machine that is to stay idle.
constexpr double kIdleReserve = 0.1;
// Between two tries without idle time.
constexpr Time kMinTry = 5 * kSecond;
constexpr Time kMaxTry = 160 * kSecond;
// Without an overload for this long, a try has succeeded, or another one may be made.
constexpr Time kTrialPeriod = 30 * kSecond;
constexpr Time kQuietPeriod = 10 * kSecond;
// A channel asks about once a second.
constexpr Time kAsksAgain = 5 * kSecond / 2;

}  // namespace

const char* NameOf(DecodeStep step) {
  constexpr std::array<const char*, kDecodeSteps> kNames{
      "full", "unreferenced_unfiltered", "unfiltered", "referenced_only", "keyframes_only"};
  return kNames[static_cast<std::size_t>(step)];
}

void WallPressure::Raise(Time now) {
  changedAt_.store(now, std::memory_order_relaxed);
  int level = this->level();
  while (level < kMaxLevel &&
         !level_.compare_exchange_weak(level, level + 1, std::memory_order_relaxed)) {
  }
}

// Once the others have yielded, the effect has to show first.
void WallPressure::Complain(Time now) {
  if (level() < kMax || now - changedAt_.load(std::memory_order_relaxed) >= kYielding) {
    Raise(now);
  }
}

void WallPressure::Observe(Time now, std::uint64_t losses) {
  int level = this->level();
  if (losses > losses_) {
    losses_ = losses;
    Raise(now);
  } else if (level > 0 && now - changedAt_.load(std::memory_order_relaxed) >= kQuiet) {
    changedAt_.store(now, std::memory_order_relaxed);
    // Fails if the level was raised meanwhile.
    level_.compare_exchange_strong(level, level - 1, std::memory_order_relaxed);
  }
}

void DecodePolicy::Opened(const Source& source, Time now) {
  source_ = source;
  most_ = DecodeStep::kKeyframesOnly;
  overloaded_ = 0;
  relaxedSince_ = framesAt_ = now;
  relief_ = std::max(relief_, kMinRelief);
}

void DecodePolicy::Raise(Time now, int step, const char* reason) {
  step = std::min(step, kMax);
  if (step <= own_) {
    return;
  }
  own_ = step;
  overloaded_ = 0;
  relaxedSince_ = now;
  isRaised_ = true;
  ownReason_ = reason;
  if (wasLowered_ && now - loweredAt_ < kLasting) {
    relief_ = std::min(2 * relief_, kMaxRelief);
  }
  wasLowered_ = false;
}

void DecodePolicy::FollowLoad(Time now, const Load& load, int pressed) {
  const int at = static_cast<int>(step_);
  const auto cost = [](int step) { return kCosts[static_cast<std::size_t>(step)]; };
  complains_ = isRaised_ = false;
  Raise(now, pressed, kWallLacks);
  if (load.busy >= kOverload) {
    relaxedSince_ = now;
    if (load.gains && !load.isLate) {
      overloaded_ = 0;
      return;
    }
    if (load.isImportant) {
      complains_ = load.isLate || ++overloaded_ >= kOverloadedUntilNext;
      overloaded_ = complains_ ? 0 : overloaded_;
      return;
    }
    const bool isLate = load.isLate && at < static_cast<int>(DecodeStep::kReferencedOnly);
    if (isLate) {
      // The share of the source that it decoded.
      const double pace = load.frames / source_.frameRate;
      int step = at + 1;
      while (step < kMax && cost(step) > pace * cost(at)) {
        ++step;
      }
      Raise(now, step, kCannotKeepUp);
    } else if (load.isLate || ++overloaded_ >= kOverloadedUntilNext) {
      Raise(now, std::max(own_, at) + 1, kCannotKeepUp);
    }
    return;
  }
  overloaded_ = 0;
  if (wasLowered_ && now - loweredAt_ >= kLasting) {
    relief_ = kMinRelief;
  }
  if (own_ <= std::max(pressed, 0)) {
    return;
  }
  const double expected = load.busy / cost(at) * cost(own_ - 1);
  if (expected > kRelaxed) {
    relaxedSince_ = now;
  } else if (now - relaxedSince_ >= relief_ &&
             (!load.admits || load.admits(std::max(expected - load.busy, 0.0)))) {
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
  if (step_ == DecodeStep::kKeyframesOnly && now - framesAt_ >= kWithoutKeyframes) {
    most_ = DecodeStep::kReferencedOnly;
  }
  const int pressed = load.isImportant ? load.pressure - kMax : load.pressure;
  FollowLoad(now, load, pressed);

  struct Wish {
    DecodeStep step;
    const char* reason;
  };
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
  if (source_.isReduced) {
    ask(DecodeStep::kUnreferencedUnfiltered, "the window is at most half as large as the source");
  }
  ask(StepOf(own_), ownReason_);
  return Take(std::min(wish.step, most_), wish.reason);
}

DecodeBudget::DecodeBudget(Settings settings)
    : settings_(std::move(settings)), free_(settings_.processors), tryEvery_(kMinTry) {}

DecodeBudget::Settings DecodeBudget::Machine() {
  return {std::max(1, static_cast<int>(std::thread::hardware_concurrency())),
          [] { return os::ReadSystemStatistics().idleTime; }};
}

DecodeBudget::Turn DecodeBudget::TakeTurn(bool isImportant) {
  const os::MutexLock guard(lock_);
  if (free_ > 0) {
    --free_;
    return Turn(*this);
  }
  Waiting waiting;
  (isImportant ? important_ : others_).push_back(&waiting);
  while (!waiting.hasTurn) {
    waiting.wake.Wait(lock_);
  }
  return Turn(*this);
}

void DecodeBudget::EndTurn() {
  const os::MutexLock guard(lock_);
  std::deque<Waiting*>& line = important_.empty() ? others_ : important_;
  if (line.empty()) {
    ++free_;
    return;
  }
  // The turn passes to the first in line, who can return only with the lock and so still exists.
  line.front()->hasTurn = true;
  line.front()->wake.NotifyOne();
  line.pop_front();
}

std::optional<std::uint64_t> DecodeBudget::AskIdleTime(Time now) {
  {
    const os::MutexLock guard(lock_);
    if (askedAt_ && now - *askedAt_ < kMeasureEvery) {
      return std::nullopt;
    }
    askedAt_ = now;
  }
  return settings_.idleTime();
}

void DecodeBudget::NoteIdleTime(Time now, std::uint64_t idleTime) {
  // The first measurement says nothing, nor does one over a long time.
  const Time elapsed = now - measuredAt_;
  const bool isRecent = isMeasured_ && elapsed > 0 && elapsed < 4 * kMeasureEvery;
  idle_ = isRecent ? static_cast<double>(idleTime - std::min(idleTime, idleTime_)) /
                         static_cast<double>(elapsed)
                   : 0;
  idleTime_ = idleTime;
  measuredAt_ = now;
  isMeasured_ = true;
}

bool DecodeBudget::IsAheadOfOthers(Time now, DecodeStep from) const {
  const auto next = static_cast<std::ptrdiff_t>(from) + 1;
  return std::any_of(refusedAt_.begin() + next, refusedAt_.end(),
                     [now](std::optional<Time> at) { return at && now - *at < kAsksAgain; });
}

bool DecodeBudget::HasRoom(Time now, double processors) {
  while (!grants_.empty() && now - grants_.front().at >= kGrantShowsAfter) {
    grants_.pop_front();
  }
  const double granted =
      std::accumulate(grants_.begin(), grants_.end(), 0.0,
                      [](double sum, const Grant& grant) { return sum + grant.processors; });
  if (idle_ - granted - kIdleReserve * settings_.processors >= processors) {
    return true;
  }
  if (now - overloadedAt_ < kQuietPeriod || now - triedAt_ < tryEvery_) {
    return false;
  }
  if (isTrying_ && now - triedAt_ >= kTrialPeriod) {
    tryEvery_ = kMinTry;
  }
  isTrying_ = true;
  triedAt_ = now;
  return true;
}

bool DecodeBudget::Admit(Time now, double processors, DecodeStep from, bool isImportant) {
  const std::optional<std::uint64_t> idleTime = AskIdleTime(now);
  const os::MutexLock guard(lock_);
  if (idleTime) {
    NoteIdleTime(now, *idleTime);
  }
  std::optional<Time>& refused = refusedAt_[static_cast<std::size_t>(from)];
  if ((!isImportant && IsAheadOfOthers(now, from)) || !HasRoom(now, processors)) {
    refused = now;
    return false;
  }
  refused.reset();
  grants_.push_back({now, processors});
  return true;
}

void DecodeBudget::NoteOverload(Time now) {
  const os::MutexLock guard(lock_);
  if (isTrying_ && now - triedAt_ < kTrialPeriod) {
    tryEvery_ = std::min(2 * tryEvery_, kMaxTry);
  }
  isTrying_ = false;
  overloadedAt_ = now;
}

DecodeBatches::Turn DecodeBatches::Take() {
  const auto deadline = std::chrono::steady_clock::now() + kMaxWait;
  const os::MutexLock guard(lock_);
  while (free_ <= 0 && ended_.WaitUntil(lock_, deadline)) {
  }
  --free_;
  return Turn(*this);
}

void DecodeBatches::EndTurn() {
  {
    const os::MutexLock guard(lock_);
    ++free_;
  }
  ended_.NotifyOne();
}

}  // namespace host
