#include "host/session/wall_clock.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <ratio>

#include "host/feed/feed_pin.h"
#include "platform/os/system_time.h"
#include "util/text_codecs.h"

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

constexpr Time kStep = kSecond / 4;
// The length of the day of the week in os::LocalTimeText.
constexpr std::size_t kWeekday = 4;

std::int64_t SecondsOf(Time time) {
  return std::chrono::floor<std::chrono::seconds>(
             std::chrono::duration<Time, std::ratio<1, kSecond>>(time))
      .count();
}

}  // namespace

WallClock::WallClock(std::int32_t rateOffset) : WallClock(&SteadyTime, rateOffset) {}

WallClock::WallClock(qorp::ReferenceClock::RawTime rawTime, std::int32_t rateOffset)
    : clock_(MakeClock(std::move(rawTime), rateOffset)) {}

// Repeats a time when the clock has not advanced.
Time WallClock::Reading() const {
  REFERENCE_TIME time = 0;
  clock_->GetTime(&time);
  return time;
}

void WallClock::Start() {
  const os::MutexLock guard(lock_);
  base_ = Reading() - stoppedAt_;
  running_ = true;
  stopping_.Clear();
}

void WallClock::Stop() {
  const os::MutexLock guard(lock_);
  if (running_) {
    stoppedAt_ = Reading() - base_;
    running_ = false;
  }
  stopping_.Set();
}

Time WallClock::Now() const {
  const os::MutexLock guard(lock_);
  return running_ ? Reading() - base_ : stoppedAt_;
}

bool WallClock::WaitUntil(Time time) {
  Time base = 0;
  {
    const os::MutexLock guard(lock_);
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

std::string TimeOfDay::Text(Time time, Time now, SystemTime systemNow) {
  const Time present =
      std::chrono::duration_cast<std::chrono::duration<Time, std::ratio<1, kSecond>>>(
          systemNow.time_since_epoch())
          .count();
  std::int64_t difference = difference_;
  if (difference == kNone || std::llabs(present - now - difference) > kStep) {
    difference = present - now;
    difference_ = difference;
  }
  const os::LocalTime then = os::ToLocalTime(SecondsOf(difference + time));
  const os::LocalTime today = os::ToLocalTime(SecondsOf(present));
  if (then.month == today.month && then.day == today.day) {
    return qorp::StringFormat("%02d:%02d:%02d", then.hour, then.minute, then.second);
  }
  return os::LocalTimeText(SecondsOf(difference + time)).substr(kWeekday);
}

}  // namespace host
