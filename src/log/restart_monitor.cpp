#include "log/restart_monitor.h"

namespace qorp::log {
namespace {

// Limits below 0 are reached always.
bool Reaches(std::uint64_t value, std::int32_t limit) {
  return limit <= 0 || value >= static_cast<std::uint64_t>(limit);
}

}  // namespace

void RestartMonitor::CountBufferFull() {
  const std::lock_guard guard(lock_);
  ++count_;
}

void RestartMonitor::Tick() {
  const std::lock_guard guard(lock_);
  if (!Reaches(elapsed_, rule_.warmUp)) {
    elapsed_ += static_cast<std::uint64_t>(rule_.step);
  } else {
    state_.lastDelta = count_ - previousCount_;
    state_.consecutive =
        Reaches(state_.lastDelta, rule_.deltaThreshold) ? state_.consecutive + 1 : 0;
  }
  previousCount_ = count_;
  if (Reaches(state_.consecutive, rule_.consecutiveLimit)) {
    state_.needRestart = true;
  }
}

RestartMonitor::State RestartMonitor::GetState() const {
  const std::lock_guard guard(lock_);
  return state_;
}

}  // namespace qorp::log
