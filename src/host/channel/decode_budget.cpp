#include "host/channel/decode_budget.h"

#include <algorithm>
#include <numeric>
#include <thread>

#include "platform/os/process.h"

namespace host {
namespace {

constexpr Time kMeasureEvery = kSecond;
// Until then what was granted shows in the idle time: from keyframes only a channel comes back with
// its next keyframe.
constexpr Time kGrantShowsAfter = 4 * kSecond;
// Stays idle, as a share of the machine.
constexpr double kIdleReserve = 0.1;
// Between two tries without idle time.
constexpr Time kMinTry = 5 * kSecond;
constexpr Time kMaxTry = 160 * kSecond;
// Without an overload for that long, a try has succeeded; and one is made.
constexpr Time kTrialPeriod = 30 * kSecond;
constexpr Time kQuietPeriod = 10 * kSecond;
// A channel asks about once a second.
constexpr Time kAsksAgain = 5 * kSecond / 2;

}  // namespace

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
  // The turn goes on to it. It leaves only with the lock, so it is there to be woken.
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
  // The first measurement says nothing; neither does one over a long time.
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
