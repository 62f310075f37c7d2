// CBaseFilter: state, clock, graph and pin enumeration of a filter.
#pragma once

#include <atomic>
#include <string>

#include "platform/baseclasses/class_factory.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/filters.h"
#include "platform/os/mutex.h"

class CBasePin;

// A time of the stream, in 100 ns units.
struct CRefTime {
  CRefTime() = default;
  CRefTime(REFERENCE_TIME time) : m_time(time) {}
  operator REFERENCE_TIME() const { return m_time; }

  REFERENCE_TIME m_time = 0;
};

// Base of every filter. The derived filter owns its pins and shows them through GetPinCount and
// GetPin. State changes run on the application's thread under m_pLock, the filter's one lock, which
// the derived filter provides and hands to its pins too; state, clock and start time may be read
// from streaming threads.
class CBaseFilter : public CUnknown, public IBaseFilter, public IAMovieSetup {
 public:
  DECLARE_IUNKNOWN

  CBaseFilter(const char* name, IUnknown* outer, CCritSec* lock, REFCLSID clsid);

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;
  ~CBaseFilter() override;

  // Time since the start of the run. VFW_E_NO_CLOCK without a clock.
  virtual HRESULT StreamTime(CRefTime& time);
  // Grows whenever the set of pins changes.
  virtual LONG GetPinVersion();
  virtual int GetPinCount() = 0;
  // The pin at a position, without a reference; null when there is none.
  virtual CBasePin* GetPin(int position) = 0;
  // Null for a filter that registers nothing of itself.
  virtual const AMOVIESETUP_FILTER* GetSetupData() { return nullptr; }

  HRESULT GetClassID(CLSID* clsid) override;
  // Inactivates every connected pin; the first failure is returned, and the filter stops all the
  // same.
  HRESULT Stop() override;
  // From stopped: activates every connected pin; a failure is returned at once.
  HRESULT Pause() override;
  HRESULT Run(REFERENCE_TIME start) override;
  HRESULT GetState(DWORD milliseconds, FILTER_STATE* state) override;
  HRESULT SetSyncSource(IReferenceClock* clock) override;
  HRESULT GetSyncSource(IReferenceClock** clock) override;
  HRESULT EnumPins(IEnumPins** enumerator) override;
  HRESULT FindPin(LPCWSTR id, IPin** pin) override;
  HRESULT QueryFilterInfo(FILTER_INFO* info) override;
  HRESULT JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override;
  HRESULT QueryVendorInfo(LPWSTR* info) override;

  HRESULT Register() override;
  HRESULT Unregister() override;

  bool IsStopped() const { return m_State.load() == State_Stopped; }
  // The graph, without a reference; null outside a graph. Called with the filter's lock held. A pin
  // holds the same lock through a pointer of its own, which the checker cannot see.
  IFilterGraph* GetFilterGraph() const NO_THREAD_SAFETY_ANALYSIS { return m_pGraph; }
  // Posts an event to the graph; E_NOTIMPL when no graph takes events.
  HRESULT NotifyEvent(LONG code, LONG_PTR parameter1, LONG_PTR parameter2);
  void IncrementPinVersion() { m_PinVersion.fetch_add(1); }

 protected:
  friend class CBasePin;

  std::atomic<FILTER_STATE> m_State{State_Stopped};  // changed under m_pLock
  CCritSec* m_pLock;

 private:
  const CLSID m_clsid;
  os::Mutex clockLock_;
  ComPtr<IReferenceClock> m_pClock GUARDED_BY(clockLock_);
  REFERENCE_TIME m_tStart GUARDED_BY(clockLock_) = 0;
  // The graph owns the filter, so no reference is held.
  IFilterGraph* m_pGraph GUARDED_BY(m_pLock) = nullptr;
  std::atomic<IMediaEventSink*> m_pSink{nullptr};
  std::u16string m_pName GUARDED_BY(m_pLock);
  std::atomic<LONG> m_PinVersion{1};
};
