#include "host/session/wall_clock.h"

#include <chrono>
#include <memory>

#include "host/feed/graph_error.h"

namespace host {
namespace {

using Units = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

std::int64_t SteadyTime() {
  return std::chrono::duration_cast<Units>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

ComPtr<qorp::ReferenceClock> MakeClock(qorp::ReferenceClock::RawTime rawTime,
                                       std::int32_t rateOffset) {
  HRESULT hr = S_OK;
  ComPtr<qorp::ReferenceClock> clock(
      std::make_unique<qorp::ReferenceClock>("wall clock", nullptr, &hr, std::move(rawTime))
          .release());
  Check(hr, "make the wall's clock");
  if (rateOffset != 0) {
    Check(clock->SetRateOffset(rateOffset), "set the rate of the wall's clock");
  }
  return clock;
}

}  // namespace

WallClock::WallClock(std::int32_t rateOffset) : WallClock(&SteadyTime, rateOffset) {}

WallClock::WallClock(qorp::ReferenceClock::RawTime rawTime, std::int32_t rateOffset)
    : clock_(MakeClock(std::move(rawTime), rateOffset)) {}

// The same time again when the clock has not moved on.
Time WallClock::Reading() const {
  REFERENCE_TIME time = 0;
  clock_->GetTime(&time);
  return time;
}

void WallClock::Start() {
  const std::lock_guard guard(lock_);
  base_ = Reading() - stoppedAt_;
  running_ = true;
  stopping_.Clear();
}

void WallClock::Stop() {
  const std::lock_guard guard(lock_);
  if (running_) {
    stoppedAt_ = Reading() - base_;
    running_ = false;
  }
  stopping_.Set();
}

Time WallClock::Now() const {
  const std::lock_guard guard(lock_);
  return running_ ? Reading() - base_ : stoppedAt_;
}

bool WallClock::WaitUntil(Time time) {
  Time base = 0;
  {
    const std::lock_guard guard(lock_);
    if (!running_) {
      return false;
    }
    base = base_;
  }
  os::Event due(os::Event::Reset::kAuto);
  DWORD_PTR cookie = 0;
  if (base + time <= 0) {
    return true;  // before the clock's own beginning, which cannot be waited for
  }
  Check(clock_->AdviseTime(base, time, &due, &cookie), "be woken by the wall's clock");
  os::Waitable* const both[] = {&stopping_, &due};
  const std::uint32_t which = os::WaitAny(both, os::kInfinite);
  clock_->Unadvise(cookie);
  return which == 1;
}

}  // namespace host
