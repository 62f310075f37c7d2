// The list of what a reference clock is to signal, and when.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <variant>

#include "platform/dshow/filters.h"

// Any thread may add and remove; the clock's thread signals what is due. Once Remove has returned,
// the event or semaphore is not touched any more: the lock is held while it is signalled, which
// calls nothing of anybody else.
class AdviseList {
 public:
  static constexpr REFERENCE_TIME kNever = INT64_MAX;

  // Each returns a cookie, never 0.
  DWORD_PTR AddOnce(REFERENCE_TIME time, HEVENT event);
  DWORD_PTR AddPeriodic(REFERENCE_TIME start, REFERENCE_TIME period, HSEMAPHORE semaphore);
  // False when there is no such entry (any more).
  bool Remove(DWORD_PTR cookie);

  // Signals everything that is due at now: an event once, a semaphore once for each period that has
  // passed. Returns the time of the next entry, kNever without one.
  REFERENCE_TIME SignalDue(REFERENCE_TIME now);

 private:
  struct Entry {
    DWORD_PTR cookie;
    REFERENCE_TIME period;  // 0 for an event
    std::variant<HEVENT, HSEMAPHORE> target;
  };

  std::mutex lock_;
  std::multimap<REFERENCE_TIME, Entry> entries_;  // guarded by lock_
  DWORD_PTR lastCookie_ = 0;                      // guarded by lock_
};
