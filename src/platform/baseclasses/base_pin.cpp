#include "platform/baseclasses/base_pin.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/baseclasses/enumerators.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/vfw_errors.h"

namespace {

// The result of a connection whose type was refused with hr: refusals without a specific reason
// (S_FALSE, E_FAIL, E_INVALIDARG) become VFW_E_TYPE_NOT_ACCEPTED.
HRESULT RefusalOfType(HRESULT hr) {
  return SUCCEEDED(hr) || hr == E_FAIL || hr == E_INVALIDARG ? VFW_E_TYPE_NOT_ACCEPTED : hr;
}

}  // namespace

CBasePin::CBasePin(const char* objectName, CBaseFilter* filter, CCritSec* lock, HRESULT* /*hr*/,
                   LPCWSTR name, PIN_DIRECTION direction)
    : CUnknown(objectName, nullptr),
      m_pFilter(filter),
      m_pLock(lock),
      m_pName(name != nullptr ? name : u""),
      m_dir(direction) {}

CBasePin::~CBasePin() = default;

HRESULT CBasePin::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IPin) {
    return GetInterface(static_cast<IPin*>(this), object);
  }
  if (iid == IID_IQualityControl) {
    return GetInterface(static_cast<IQualityControl*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

ULONG CBasePin::NonDelegatingAddRef() {
  return m_pFilter->AddRef();
}
ULONG CBasePin::NonDelegatingRelease() {
  return m_pFilter->Release();
}

HRESULT CBasePin::Inactive() {
  m_bRunTimeError = false;
  return S_OK;
}

HRESULT CBasePin::Run(REFERENCE_TIME /*start*/) {
  return S_OK;
}

HRESULT CBasePin::SetMediaType(const CMediaType* type) {
  const os::MutexLock guard(typeLock_);
  return m_mt.Set(*type);
}

HRESULT CBasePin::CheckConnect(IPin* pin) {
  PIN_DIRECTION direction{};
  const HRESULT hr = pin->QueryDirection(&direction);
  if (FAILED(hr)) {
    return hr;
  }
  return direction == m_dir ? VFW_E_INVALID_DIRECTION : S_OK;
}

HRESULT CBasePin::CompleteConnect(IPin* /*pin*/) {
  return S_OK;
}

HRESULT CBasePin::GetMediaType(int /*position*/, CMediaType* /*type*/) {
  return E_UNEXPECTED;
}

void CBasePin::SetConnected(IPin* pin) {
  m_Connected = ComPtr<IPin>(pin);
  isConnected_ = pin != nullptr;
}

HRESULT CBasePin::Connect(IPin* receivePin, const AM_MEDIA_TYPE* type) {
  if (receivePin == nullptr) {
    return E_POINTER;
  }
  const CAutoLock guard(m_pLock);
  if (m_Connected) {
    return VFW_E_ALREADY_CONNECTED;
  }
  if (!IsStopped() && !m_bCanReconnectWhenActive) {
    return VFW_E_NOT_STOPPED;
  }
  const HRESULT hr = AtComBoundary([&] {
    m_pLock->AssertHeld();
    CMediaType wanted;
    HRESULT checked = CheckConnect(receivePin);
    if (SUCCEEDED(checked) && type != nullptr) {
      checked = wanted.Set(*type);
    }
    if (FAILED(checked)) {
      return checked;
    }
    BreakConnect();
    return AgreeMediaType(receivePin, type != nullptr ? &wanted : nullptr);
  });
  if (FAILED(hr)) {
    BreakConnect();
  }
  return hr;
}

HRESULT CBasePin::AgreeMediaType(IPin* receivePin, const CMediaType* wanted) {
  if (wanted != nullptr && !wanted->IsPartiallySpecified()) {
    return AttemptConnection(receivePin, *wanted);
  }
  // The receiving pin's preferences come first unless the pin asks otherwise.
  HRESULT failure = VFW_E_NO_ACCEPTABLE_TYPES;
  for (const bool mine : {m_bTryMyTypesFirst, !m_bTryMyTypesFirst}) {
    ComPtr<IEnumMediaTypes> types;
    const HRESULT listed =
        mine ? EnumMediaTypes(types.Put()) : receivePin->EnumMediaTypes(types.Put());
    if (FAILED(listed) || !types) {
      continue;
    }
    const HRESULT hr = TryMediaTypes(receivePin, wanted, types.Get());
    if (SUCCEEDED(hr)) {
      return hr;
    }
    if (hr != VFW_E_NO_ACCEPTABLE_TYPES) {
      failure = hr;
    }
  }
  return failure;
}

HRESULT CBasePin::TryMediaTypes(IPin* receivePin, const CMediaType* wanted,
                                IEnumMediaTypes* types) {
  HRESULT failure = VFW_E_NO_ACCEPTABLE_TYPES;
  types->Reset();
  while (true) {
    AM_MEDIA_TYPE* listed = nullptr;
    ULONG fetched = 0;
    if (types->Next(1, &listed, &fetched) != S_OK) {
      return failure;
    }
    const OwnedMediaType owned(listed);
    if (owned == nullptr) {
      return failure;
    }
    CMediaType candidate;
    if (FAILED(candidate.Set(*owned))) {
      return E_OUTOFMEMORY;
    }
    if (wanted != nullptr && !candidate.MatchesPartial(*wanted)) {
      continue;
    }
    const HRESULT hr = AttemptConnection(receivePin, candidate);
    if (SUCCEEDED(hr)) {
      return hr;
    }
    // The first failure with a reason of its own is the most specific.
    if (failure == VFW_E_NO_ACCEPTABLE_TYPES && hr != VFW_E_TYPE_NOT_ACCEPTED) {
      failure = hr;
    }
  }
}

HRESULT CBasePin::AttemptConnection(IPin* receivePin, const CMediaType& type) {
  HRESULT hr = CheckConnect(receivePin);
  if (FAILED(hr)) {
    BreakConnect();
    return hr;
  }
  hr = CheckMediaType(&type);
  if (hr != S_OK) {
    BreakConnect();
    return RefusalOfType(hr);
  }
  SetConnected(receivePin);
  hr = AtComBoundary([&] { return SetMediaType(&type); });
  if (SUCCEEDED(hr)) {
    hr = receivePin->ReceiveConnection(this, &type);
    if (SUCCEEDED(hr)) {
      hr = AtComBoundary([&] { return CompleteConnect(receivePin); });
      if (SUCCEEDED(hr)) {
        return S_OK;
      }
      receivePin->Disconnect();
    }
  }
  BreakConnect();
  SetConnected(nullptr);
  return hr;
}

HRESULT CBasePin::CheckProposal(IPin* connector, const AM_MEDIA_TYPE& type, CMediaType* proposed) {
  HRESULT hr = AtComBoundary([&] { return CheckConnect(connector); });
  if (FAILED(hr)) {
    return hr;
  }
  hr = AtComBoundary([&] {
    const HRESULT copied = proposed->Set(type);
    return SUCCEEDED(copied) ? CheckMediaType(proposed) : copied;
  });
  return hr == S_OK ? S_OK : RefusalOfType(hr);
}

HRESULT CBasePin::ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) {
  if (connector == nullptr || type == nullptr) {
    return E_POINTER;
  }
  const CAutoLock guard(m_pLock);
  if (m_Connected) {
    return VFW_E_ALREADY_CONNECTED;
  }
  if (!IsStopped() && !m_bCanReconnectWhenActive) {
    return VFW_E_NOT_STOPPED;
  }
  CMediaType proposed;
  HRESULT hr = CheckProposal(connector, *type, &proposed);
  if (FAILED(hr)) {
    BreakConnect();
    return hr;
  }
  SetConnected(connector);
  hr = AtComBoundary([&] {
    const HRESULT set = SetMediaType(&proposed);
    return SUCCEEDED(set) ? CompleteConnect(connector) : set;
  });
  if (SUCCEEDED(hr)) {
    return S_OK;
  }
  BreakConnect();
  SetConnected(nullptr);
  return hr;
}

HRESULT CBasePin::Disconnect() {
  const CAutoLock guard(m_pLock);
  if (!IsStopped() && !m_bCanReconnectWhenActive) {
    return VFW_E_NOT_STOPPED;
  }
  return DisconnectInternal();
}

HRESULT CBasePin::DisconnectInternal() {
  if (!m_Connected) {
    return S_FALSE;
  }
  const HRESULT hr = AtComBoundary([&] { return BreakConnect(); });
  if (FAILED(hr)) {
    return hr;
  }
  SetConnected(nullptr);
  return S_OK;
}

HRESULT CBasePin::ConnectedTo(IPin** pin) {
  if (pin == nullptr) {
    return E_POINTER;
  }
  const CAutoLock guard(m_pLock);
  *pin = ComPtr<IPin>(m_Connected).Detach();
  return *pin != nullptr ? S_OK : VFW_E_NOT_CONNECTED;
}

HRESULT CBasePin::ConnectionMediaType(AM_MEDIA_TYPE* type) {
  if (type == nullptr) {
    return E_POINTER;
  }
  if (!IsConnected()) {
    *type = AM_MEDIA_TYPE{};
    return VFW_E_NOT_CONNECTED;
  }
  const os::MutexLock guard(typeLock_);
  return CopyMediaType(type, &m_mt);
}

HRESULT CBasePin::QueryPinInfo(PIN_INFO* info) {
  if (info == nullptr) {
    return E_POINTER;
  }
  info->pFilter = ComPtr<IBaseFilter>(m_pFilter).Detach();
  info->dir = m_dir;
  const std::size_t length = std::min(m_pName.size(), MAX_PIN_NAME - 1);
  std::copy_n(m_pName.begin(), length, info->achName);
  info->achName[length] = 0;
  return S_OK;
}

HRESULT CBasePin::QueryDirection(PIN_DIRECTION* direction) {
  if (direction == nullptr) {
    return E_POINTER;
  }
  *direction = m_dir;
  return S_OK;
}

HRESULT CBasePin::QueryId(LPWSTR* id) {
  if (id == nullptr) {
    return E_POINTER;
  }
  const std::size_t bytes = (m_pName.size() + 1) * sizeof(WCHAR);
  *id = static_cast<LPWSTR>(CoTaskMemAlloc(bytes));
  if (*id == nullptr) {
    return E_OUTOFMEMORY;
  }
  std::memcpy(*id, m_pName.c_str(), bytes);
  return S_OK;
}

HRESULT CBasePin::QueryAccept(const AM_MEDIA_TYPE* type) {
  if (type == nullptr) {
    return E_POINTER;
  }
  return AtComBoundary([&] {
    CMediaType asked;
    return SUCCEEDED(asked.Set(*type)) && CheckMediaType(&asked) == S_OK ? S_OK : S_FALSE;
  });
}

HRESULT CBasePin::EnumMediaTypes(IEnumMediaTypes** enumerator) {
  if (enumerator == nullptr) {
    return E_POINTER;
  }
  *enumerator = ComPtr<IEnumMediaTypes>(new (std::nothrow) CEnumMediaTypes(this, nullptr)).Detach();
  return *enumerator != nullptr ? S_OK : E_OUTOFMEMORY;
}

HRESULT CBasePin::QueryInternalConnections(IPin** /*pins*/, ULONG* /*count*/) {
  return E_NOTIMPL;
}

HRESULT CBasePin::EndOfStream() {
  return S_OK;
}

HRESULT CBasePin::NewSegment(REFERENCE_TIME /*start*/, REFERENCE_TIME /*stop*/, double /*rate*/) {
  return S_OK;
}

HRESULT CBasePin::Notify(IBaseFilter* /*self*/, Quality /*quality*/) {
  return E_NOTIMPL;
}

HRESULT CBasePin::SetSink(IQualityControl* sink) {
  const CAutoLock guard(m_pLock);
  m_pQSink = sink;
  return S_OK;
}
