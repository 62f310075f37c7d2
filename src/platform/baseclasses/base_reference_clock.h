// CBaseReferenceClock: a clock that filters read and are woken by.
#pragma once

#include <memory>
#include <mutex>

#include "platform/baseclasses/advise_list.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/os/thread.h"
#include "platform/os/waitable.h"

// Base of reference clocks. The derived clock says what time it is (GetPrivateTime); what is shown
// outside never goes back. A thread of the clock's own signals advises; it is started with the
// first one. Any thread may call.
//
// The derived class calls EndAdvising in its destructor: the thread asks it for the time until
// then.
class CBaseReferenceClock : public CUnknown, public IReferenceClock {
 public:
  DECLARE_IUNKNOWN

  CBaseReferenceClock(const char* name, IUnknown* outer, HRESULT* hr);
  ~CBaseReferenceClock() override;

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  // S_FALSE when the private time has not moved on since the last call: the same time again.
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

  // Lets the thread look again, after the time was moved.
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

  std::mutex timeLock_;
  REFERENCE_TIME lastGotTime_ = INT64_MIN;  // guarded by timeLock_

  AdviseList advises_;
  os::Event trigger_{os::Event::Reset::kAuto};
  std::mutex threadLock_;
  std::unique_ptr<os::Thread> thread_;  // guarded by threadLock_
  std::atomic<bool> ending_{false};
};
