// The time of a running wall, and the time of day that belongs to it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

#include "host/units.h"
#include "platform/com/com.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"
#include "util/reference_clock.h"

namespace host {

// Runs from 0 with the system's reference clock once it is started, and continues from where it was
// when it is started again. Any thread may ask; each wait is one advise of the clock.
//
// The reference clock is based on the steady clock: one based on the multimedia timer jumps when
// that wraps after 49.7 days, and a wall runs longer.
class WallClock {
 public:
  // rateOffset: millionths by which the wall's time runs faster (or, negative, slower) than the
  // machine's, for a machine whose clock is known to drift.
  explicit WallClock(std::int32_t rateOffset = 0);
  // With a time source of the caller's (100 ns units, not negative).
  WallClock(qorp::ReferenceClock::RawTime rawTime, std::int32_t rateOffset);

  void Start();
  // Ends every wait, until the next Start; the time stands still.
  void Stop();
  Time Now() const;
  // False when the clock was stopped first.
  bool WaitUntil(Time time);

  // For filters.
  IReferenceClock* reference() const { return clock_.Get(); }

 private:
  Time Reading() const;

  const ComPtr<qorp::ReferenceClock> clock_;
  os::Event stopping_{os::Event::Reset::kManual, true};
  mutable os::Mutex lock_;
  bool running_ GUARDED_BY(lock_) = false;
  Time base_ GUARDED_BY(lock_) = 0;  // the reference clock's time at the wall's time 0
  Time stoppedAt_ GUARDED_BY(lock_) = 0;
};

// Converts by the present difference between the wall's clock and the time of day: the latter may
// be set, the wall's may run at another rate and stops while the machine is suspended. The
// difference that is used is updated in steps, so that a text does not flicker between two seconds.
// Any thread.
class TimeOfDay {
 public:
  using SystemTime = std::chrono::system_clock::time_point;

  // The local time "23:59:01"; with its date, "Nov 24 23:59:01", when that is not today's. now: the
  // wall's time at the moment systemNow.
  std::string Text(Time time, Time now, SystemTime systemNow);

 private:
  static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::min();

  std::atomic<std::int64_t> difference_{kNone};  // 100 ns since 1970 at the wall's time 0
};

}  // namespace host
