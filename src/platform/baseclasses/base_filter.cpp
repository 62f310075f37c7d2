#include "platform/baseclasses/base_filter.h"

#include <algorithm>
#include <new>

#include "platform/baseclasses/base_pin.h"
#include "platform/baseclasses/class_factory.h"
#include "platform/baseclasses/enumerators.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"

CBaseFilter::CBaseFilter(const char* name, IUnknown* outer, CCritSec* lock, REFCLSID clsid)
    : CUnknown(name, outer), m_pLock(lock), m_clsid(clsid) {}

CBaseFilter::~CBaseFilter() = default;

HRESULT CBaseFilter::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IBaseFilter || iid == IID_IMediaFilter || iid == IID_IPersist) {
    return GetInterface(static_cast<IBaseFilter*>(this), object);
  }
  if (iid == IID_IAMovieSetup) {
    return GetInterface(static_cast<IAMovieSetup*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT CBaseFilter::StreamTime(CRefTime& time) {
  ComPtr<IReferenceClock> clock;
  REFERENCE_TIME start = 0;
  {
    const os::MutexLock guard(clockLock_);
    clock = m_pClock;
    start = m_tStart;
  }
  if (!clock) {
    return VFW_E_NO_CLOCK;
  }
  REFERENCE_TIME now = 0;
  const HRESULT hr = clock->GetTime(&now);
  if (FAILED(hr)) {
    return hr;
  }
  time = SubtractTimes(now, start);
  return S_OK;
}

LONG CBaseFilter::GetPinVersion() {
  return m_PinVersion.load();
}

HRESULT CBaseFilter::GetClassID(CLSID* clsid) {
  if (clsid == nullptr) {
    return E_POINTER;
  }
  *clsid = m_clsid;
  return S_OK;
}

HRESULT CBaseFilter::Stop() {
  const CAutoLock guard(m_pLock);
  HRESULT result = S_OK;
  if (m_State != State_Stopped) {
    const int pins = GetPinCount();
    for (int i = 0; i < pins; ++i) {
      CBasePin* const pin = GetPin(i);
      if (pin != nullptr && pin->IsConnected()) {
        const HRESULT hr = AtComBoundary([&] { return pin->Inactive(); });
        if (FAILED(hr) && SUCCEEDED(result)) {
          result = hr;
        }
      }
    }
  }
  m_State = State_Stopped;
  return result;
}

HRESULT CBaseFilter::Pause() {
  const CAutoLock guard(m_pLock);
  if (m_State == State_Stopped) {
    const int pins = GetPinCount();
    for (int i = 0; i < pins; ++i) {
      CBasePin* const pin = GetPin(i);
      if (pin != nullptr && pin->IsConnected()) {
        const HRESULT hr = AtComBoundary([&] { return pin->Active(); });
        if (FAILED(hr)) {
          return hr;
        }
      }
    }
  }
  m_State = State_Paused;
  return S_OK;
}

HRESULT CBaseFilter::Run(REFERENCE_TIME start) {
  const CAutoLock guard(m_pLock);
  {
    const os::MutexLock clockGuard(clockLock_);
    m_tStart = start;
  }
  if (m_State == State_Stopped) {
    const HRESULT hr = Pause();
    if (FAILED(hr)) {
      return hr;
    }
  }
  if (m_State != State_Running) {
    const int pins = GetPinCount();
    for (int i = 0; i < pins; ++i) {
      CBasePin* const pin = GetPin(i);
      if (pin != nullptr && pin->IsConnected()) {
        const HRESULT hr = AtComBoundary([&] { return pin->Run(start); });
        if (FAILED(hr)) {
          return hr;
        }
      }
    }
  }
  m_State = State_Running;
  return S_OK;
}

HRESULT CBaseFilter::GetState(DWORD /*milliseconds*/, FILTER_STATE* state) {
  if (state == nullptr) {
    return E_POINTER;
  }
  *state = m_State;
  return S_OK;
}

HRESULT CBaseFilter::SetSyncSource(IReferenceClock* clock) {
  // The former clock is released outside the lock: its destructor may wait for its thread.
  ComPtr<IReferenceClock> other(clock);
  const os::MutexLock guard(clockLock_);
  m_pClock.Swap(other);
  return S_OK;
}

HRESULT CBaseFilter::GetSyncSource(IReferenceClock** clock) {
  if (clock == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(clockLock_);
  *clock = ComPtr<IReferenceClock>(m_pClock).Detach();
  return S_OK;
}

HRESULT CBaseFilter::EnumPins(IEnumPins** enumerator) {
  if (enumerator == nullptr) {
    return E_POINTER;
  }
  *enumerator = ComPtr<IEnumPins>(new (std::nothrow) CEnumPins(this, nullptr)).Detach();
  return *enumerator != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CBaseFilter::FindPin(LPCWSTR id, IPin** pin) {
  if (id == nullptr || pin == nullptr) {
    return E_POINTER;
  }
  const CAutoLock guard(m_pLock);
  const int pins = GetPinCount();
  for (int i = 0; i < pins; ++i) {
    CBasePin* const candidate = GetPin(i);
    if (candidate != nullptr && candidate->Name() == id) {
      *pin = ComPtr<IPin>(candidate).Detach();
      return S_OK;
    }
  }
  *pin = nullptr;
  return VFW_E_NOT_FOUND;
}

HRESULT CBaseFilter::QueryFilterInfo(FILTER_INFO* info) {
  if (info == nullptr) {
    return E_POINTER;
  }
  const CAutoLock guard(m_pLock);
  const std::size_t length = std::min(m_pName.size(), MAX_FILTER_NAME - 1);
  std::copy_n(m_pName.begin(), length, info->achName);
  info->achName[length] = 0;
  info->pGraph = ComPtr<IFilterGraph>(m_pGraph).Detach();
  return S_OK;
}

HRESULT CBaseFilter::JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) {
  return AtComBoundary([&] {
    std::u16string copy(name != nullptr ? name : u"");
    const CAutoLock guard(m_pLock);
    m_pGraph = graph;
    m_pSink = QueryFor<IMediaEventSink>(graph).Get();
    m_pName = std::move(copy);
    return S_OK;
  });
}

HRESULT CBaseFilter::QueryVendorInfo(LPWSTR* info) {
  if (info != nullptr) {
    *info = nullptr;
  }
  return E_NOTIMPL;
}

HRESULT CBaseFilter::Register() {
  const AMOVIESETUP_FILTER* const setup = GetSetupData();
  return setup == nullptr ? S_FALSE : RegisterFilterSetup(*setup);
}

HRESULT CBaseFilter::Unregister() {
  const AMOVIESETUP_FILTER* const setup = GetSetupData();
  return setup == nullptr ? S_FALSE : UnregisterFilterSetup(*setup->clsID);
}

HRESULT CBaseFilter::NotifyEvent(LONG code, LONG_PTR parameter1, LONG_PTR parameter2) {
  IMediaEventSink* const sink = m_pSink.load();
  return sink == nullptr ? E_NOTIMPL : sink->Notify(code, parameter1, parameter2);
}
