// CBaseReferenceClock: a clock that filters read and that signals their advises, and the list of
// these.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <variant>

#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/filters.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

// Any thread may add and remove; the clock's thread signals what is due. Once Remove has returned,
// the event or semaphore is not touched any more: it is signalled with the lock held.
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

  os::Mutex lock_;
  std::multimap<REFERENCE_TIME, Entry> entries_ GUARDED_BY(lock_);
  DWORD_PTR lastCookie_ GUARDED_BY(lock_) = 0;
};

// Base of reference clocks. The derived clock provides the time (GetPrivateTime); the time that
// GetTime returns never goes back. A thread of the clock's own signals advises; it is started with
// the first one. Any thread may call.
//
// The derived class calls EndAdvising in its destructor: the thread calls GetPrivateTime until
// then.
class CBaseReferenceClock : public CUnknown, public IReferenceClock {
 public:
  DECLARE_IUNKNOWN

  CBaseReferenceClock(const char* name, IUnknown* outer, HRESULT* hr);
  ~CBaseReferenceClock() override;

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  // S_FALSE and the same time again when the private time has not advanced since the last call.
  HRESULT GetTime(REFERENCE_TIME* time) override;
  // E_INVALIDARG for times that are not positive.
  HRESULT AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime, HEVENT event,
                     DWORD_PTR* cookie) override;
  HRESULT AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime, HSEMAPHORE semaphore,
                         DWORD_PTR* cookie) override;
  // S_FALSE for a cookie that is not (or no longer) in use.
  HRESULT Unadvise(DWORD_PTR cookie) override;

  // The clock's own time, 100 ns units; called from any thread, also the clock's.
  virtual REFERENCE_TIME GetPrivateTime() = 0;

  // Makes the thread check its advises again, after the clock's time was changed.
  void TriggerThread() { trigger_.Set(); }

 protected:
  // Ends the thread and waits for it; nothing is signalled afterwards.
  void EndAdvising();

 private:
  // Adds an entry and makes sure that the thread runs.
  template <typename Add>
  HRESULT Advise(DWORD_PTR* cookie, const Add& add);
  void StartAdvising();
  void SignalAdvises();

  os::Mutex timeLock_;
  REFERENCE_TIME lastGotTime_ GUARDED_BY(timeLock_) = INT64_MIN;

  AdviseList advises_;
  os::Event trigger_{os::Event::Reset::kAuto};
  os::Mutex threadLock_;
  std::unique_ptr<os::Thread> thread_ GUARDED_BY(threadLock_);
  std::atomic<bool> ending_{false};
};
