#include "platform/baseclasses/base_reference_clock.h"

#include <algorithm>

#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/media.h"
#include "platform/os/thread.h"

DWORD_PTR AdviseList::AddOnce(REFERENCE_TIME time, HEVENT event) {
  const os::MutexLock guard(lock_);
  entries_.emplace(time, Entry{++lastCookie_, 0, event});
  return lastCookie_;
}

DWORD_PTR AdviseList::AddPeriodic(REFERENCE_TIME start, REFERENCE_TIME period,
                                  HSEMAPHORE semaphore) {
  const os::MutexLock guard(lock_);
  entries_.emplace(start, Entry{++lastCookie_, period, semaphore});
  return lastCookie_;
}

bool AdviseList::Remove(DWORD_PTR cookie) {
  const os::MutexLock guard(lock_);
  return std::erase_if(entries_, [&](const auto& item) { return item.second.cookie == cookie; }) >
         0;
}

REFERENCE_TIME AdviseList::SignalDue(REFERENCE_TIME now) {
  const os::MutexLock guard(lock_);
  while (!entries_.empty() && entries_.begin()->first <= now) {
    auto due = entries_.extract(entries_.begin());
    const Entry& entry = due.mapped();
    if (entry.period == 0) {
      std::get<HEVENT>(entry.target)->Set();
      continue;
    }
    // When the clock has jumped forward, one release for each period that has passed.
    const REFERENCE_TIME passed = (now - due.key()) / entry.period + 1;
    std::get<HSEMAPHORE>(entry.target)
        ->Release(static_cast<LONG>(std::min<REFERENCE_TIME>(passed, INT32_MAX)));
    // A next time beyond the range of times never comes.
    due.key() = entry.period < kNever - now ? due.key() + passed * entry.period : kNever;
    entries_.insert(std::move(due));
  }
  return entries_.empty() ? kNever : entries_.begin()->first;
}

namespace {

constexpr std::uint64_t kUnitsPerMillisecond = 10000;
// The longest wait in one piece: a clock whose time jumps is read again by then.
constexpr std::uint64_t kMaxWait = 10000 * kUnitsPerMillisecond;

}  // namespace

CBaseReferenceClock::CBaseReferenceClock(const char* name, IUnknown* outer, HRESULT* /*hr*/)
    : CUnknown(name, outer) {}

CBaseReferenceClock::~CBaseReferenceClock() {
  EndAdvising();
}

HRESULT CBaseReferenceClock::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IReferenceClock) {
    return GetInterface(static_cast<IReferenceClock*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT CBaseReferenceClock::GetTime(REFERENCE_TIME* time) {
  if (time == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(timeLock_);
  const REFERENCE_TIME now = GetPrivateTime();
  if (now > lastGotTime_) {
    lastGotTime_ = now;
    *time = now;
    return S_OK;
  }
  *time = lastGotTime_;
  return S_FALSE;
}

HRESULT CBaseReferenceClock::AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime,
                                        HEVENT event, DWORD_PTR* cookie) {
  if (event == nullptr || cookie == nullptr) {
    return E_POINTER;
  }
  *cookie = 0;
  const REFERENCE_TIME time = AddTimes(baseTime, streamTime);
  if (time <= 0 || time == AdviseList::kNever) {
    return E_INVALIDARG;
  }
  return Advise(cookie, [&] { return advises_.AddOnce(time, event); });
}

HRESULT CBaseReferenceClock::AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime,
                                            HSEMAPHORE semaphore, DWORD_PTR* cookie) {
  if (semaphore == nullptr || cookie == nullptr) {
    return E_POINTER;
  }
  *cookie = 0;
  if (startTime <= 0 || periodTime <= 0 || startTime == AdviseList::kNever) {
    return E_INVALIDARG;
  }
  return Advise(cookie, [&] { return advises_.AddPeriodic(startTime, periodTime, semaphore); });
}

template <typename Add>
HRESULT CBaseReferenceClock::Advise(DWORD_PTR* cookie, const Add& add) {
  const HRESULT hr = AtComBoundary([&] {
    *cookie = add();
    StartAdvising();
    return S_OK;
  });
  if (FAILED(hr)) {
    // Without its thread the clock would never signal it.
    advises_.Remove(*cookie);
    *cookie = 0;
  }
  return hr;
}

HRESULT CBaseReferenceClock::Unadvise(DWORD_PTR cookie) {
  return advises_.Remove(cookie) ? S_OK : S_FALSE;
}

void CBaseReferenceClock::StartAdvising() {
  {
    const os::MutexLock guard(threadLock_);
    if (thread_ == nullptr && !ending_) {
      thread_ = std::make_unique<os::Thread>([this] { SignalAdvises(); }, "clock");
    }
  }
  trigger_.Set();
}

void CBaseReferenceClock::EndAdvising() {
  ending_ = true;
  trigger_.Set();
  const os::MutexLock guard(threadLock_);
  if (thread_ != nullptr) {
    thread_->Wait(os::kInfinite);
    thread_.reset();
  }
}

void CBaseReferenceClock::SignalAdvises() {
  while (!ending_) {
    const REFERENCE_TIME now = GetPrivateTime();
    const REFERENCE_TIME next = advises_.SignalDue(now);
    if (next == AdviseList::kNever) {
      trigger_.Wait(os::kInfinite);
      continue;
    }
    const std::uint64_t wait = std::min(TimeDistance(next, now), kMaxWait);
    trigger_.Wait(
        static_cast<std::uint32_t>((wait + kUnitsPerMillisecond - 1) / kUnitsPerMillisecond));
  }
}
