#include "platform/baseclasses/advise_list.h"

#include <algorithm>

#include "platform/os/waitable.h"

DWORD_PTR AdviseList::AddOnce(REFERENCE_TIME time, HEVENT event) {
  const std::lock_guard guard(lock_);
  entries_.emplace(time, Entry{++lastCookie_, 0, event});
  return lastCookie_;
}

DWORD_PTR AdviseList::AddPeriodic(REFERENCE_TIME start, REFERENCE_TIME period,
                                  HSEMAPHORE semaphore) {
  const std::lock_guard guard(lock_);
  entries_.emplace(start, Entry{++lastCookie_, period, semaphore});
  return lastCookie_;
}

bool AdviseList::Remove(DWORD_PTR cookie) {
  const std::lock_guard guard(lock_);
  return std::erase_if(entries_, [&](const auto& item) { return item.second.cookie == cookie; }) >
         0;
}

REFERENCE_TIME AdviseList::SignalDue(REFERENCE_TIME now) {
  const std::lock_guard guard(lock_);
  while (!entries_.empty() && entries_.begin()->first <= now) {
    auto due = entries_.extract(entries_.begin());
    const Entry& entry = due.mapped();
    if (entry.period == 0) {
      std::get<HEVENT>(entry.target)->Set();
      continue;
    }
    // A clock that jumped forward owes one release for each period that it passed.
    const REFERENCE_TIME passed = (now - due.key()) / entry.period + 1;
    std::get<HSEMAPHORE>(entry.target)
        ->Release(static_cast<LONG>(std::min<REFERENCE_TIME>(passed, INT32_MAX)));
    // A period beyond the range of times never ends.
    due.key() = entry.period < kNever - now ? due.key() + passed * entry.period : kNever;
    entries_.insert(std::move(due));
  }
  return entries_.empty() ? kNever : entries_.begin()->first;
}
