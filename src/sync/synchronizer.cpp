#include "sync/synchronizer.h"

#include <numeric>
#include <stdexcept>

namespace {

constexpr std::uint64_t kUnitsPerSecond = 10'000'000;

// Ticks times units does not fit 64 bits for counters that run for years.
__extension__ using Wide = __int128;

std::uint64_t CommonDivisor(std::uint64_t tickRate) {
  if (tickRate == 0) {
    throw std::invalid_argument(
        "CSynchronizer: the tick rate is 0; give the counter's ticks per second");
  }
  return std::gcd(kUnitsPerSecond, tickRate);
}

}  // namespace

CSynchronizer::CSynchronizer(std::uint64_t tickRate, std::uint64_t wrapTicks)
    : ticksPerStep_(tickRate / CommonDivisor(tickRate)),
      unitsPerStep_(kUnitsPerSecond / CommonDivisor(tickRate)),
      wrapTicks_(wrapTicks),
      wrapTime_(static_cast<std::uint64_t>(
          (ticksPerStep_ / 2 + static_cast<Wide>(wrapTicks) * unitsPerStep_) / ticksPerStep_)) {}

bool CSynchronizer::IsSynchronized() {
  const std::lock_guard guard(lock_);
  return synchronized_;
}

void CSynchronizer::SetReference(std::uint64_t ticks, REFERENCE_TIME time) {
  const std::lock_guard guard(lock_);
  synchronized_ = true;
  referenceTicks_ = ticks;
  referenceTime_ = time;
}

void CSynchronizer::ResetReference() {
  const std::lock_guard guard(lock_);
  synchronized_ = false;
}

std::uint64_t CSynchronizer::Forward(std::uint64_t from, std::uint64_t to) const {
  return to >= from ? to - from : wrapTicks_ - from + to;
}

REFERENCE_TIME CSynchronizer::ToReferenceTime(std::uint64_t ticks) {
  const std::lock_guard guard(lock_);
  const auto behind = static_cast<std::int64_t>(Forward(ticks, referenceTicks_));
  const auto ahead = static_cast<std::int64_t>(Forward(referenceTicks_, ticks));
  const Wide delta = behind < ahead ? -static_cast<Wide>(behind) : ahead;
  // Rounded to the nearest, halves away from zero.
  const Wide half = ticksPerStep_ / 2;
  const Wide product = delta * unitsPerStep_;
  const Wide value =
      (product >= 0 ? product + half : product - half) / static_cast<Wide>(ticksPerStep_);
  const Wide result = referenceTime_ + value;
  return static_cast<REFERENCE_TIME>(result < 0 ? result + wrapTime_ : result);
}
