#include "platform/graph/filter_graph.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <set>

#include "platform/baseclasses/enumerators.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/filters.h"
#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"

namespace {

constexpr CLSID kFilterGraphClass{
    0xE436EBB3, 0x524F, 0x11CE, {0x9F, 0x53, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};

// Between the call of Run and the first frame that is due, 100 ns units.
constexpr REFERENCE_TIME kStartDelay = 100000;

// Calls visit with every pin of a filter.
void ForEachPin(IBaseFilter* filter, const std::function<void(IPin*)>& visit) {
  ComPtr<IEnumPins> pins;
  if (FAILED(filter->EnumPins(pins.Put()))) {
    return;
  }
  ComPtr<IPin> pin;
  while (pins->Next(1, pin.Put(), nullptr) == S_OK) {
    visit(pin.Get());
  }
}

// The pin at the other end; null when not connected.
ComPtr<IPin> PeerOf(IPin* pin) {
  ComPtr<IPin> peer;
  pin->ConnectedTo(peer.Put());
  return peer;
}

bool IsOutput(IPin* pin) {
  PIN_DIRECTION direction{};
  return SUCCEEDED(pin->QueryDirection(&direction)) && direction == PINDIR_OUTPUT;
}

// The filter that a pin belongs to; null for no pin.
ComPtr<IBaseFilter> FilterOf(IPin* pin) {
  PIN_INFO info{};
  return pin != nullptr && SUCCEEDED(pin->QueryPinInfo(&info))
             ? ComPtr<IBaseFilter>::Adopt(info.pFilter)
             : nullptr;
}

}  // namespace

ComPtr<FilterGraph> FilterGraph::Create() {
  return ComPtr<FilterGraph>(std::make_unique<FilterGraph>().release());
}

FilterGraph::FilterGraph() : CUnknown("filter graph", nullptr) {}

FilterGraph::~FilterGraph() {
  Stop();
  while (!filters_.empty()) {
    const ComPtr<IBaseFilter> filter = filters_.back().filter;
    RemoveFilter(filter.Get());
  }
}

HRESULT FilterGraph::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IFilterGraph) {
    return GetInterface(static_cast<IFilterGraph*>(this), object);
  }
  if (iid == IID_IMediaFilter || iid == IID_IPersist) {
    return GetInterface(static_cast<IMediaFilter*>(this), object);
  }
  if (iid == IID_IMediaEventSink) {
    return GetInterface(static_cast<IMediaEventSink*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

FilterGraph::Entry* FilterGraph::FindEntry(IUnknown* filter) {
  const auto found = std::find_if(filters_.begin(), filters_.end(), [&](const Entry& entry) {
    return IsSameObject(entry.filter.Get(), filter);
  });
  return found == filters_.end() ? nullptr : &*found;
}

HRESULT FilterGraph::AddFilter(IBaseFilter* filter, LPCWSTR name) {
  if (filter == nullptr) {
    return E_POINTER;
  }
  return AtComBoundary([&] { return Add(filter, name); });
}

HRESULT FilterGraph::Add(IBaseFilter* filter, LPCWSTR name) {
  const os::MutexLock guard(lock_);
  if (state_ != State_Stopped) {
    return VFW_E_NOT_STOPPED;
  }
  if (FindEntry(filter) != nullptr) {
    return E_INVALIDARG;
  }
  const std::u16string wanted = name != nullptr && *name != 0 ? name : u"Filter";
  const auto isTaken = [&](const std::u16string& candidate) {
    lock_.AssertHeld();
    return std::any_of(filters_.begin(), filters_.end(),
                       [&](const Entry& entry) { return entry.name == candidate; });
  };
  std::u16string unique = wanted;
  for (int number = 2; isTaken(unique); ++number) {
    const std::string suffix = " " + std::to_string(number);
    unique = wanted + std::u16string(suffix.begin(), suffix.end());
  }
  const bool isTakenName = unique != wanted;
  // Nothing fails any more once the filter has joined.
  filters_.reserve(filters_.size() + 1);
  const HRESULT hr = filter->JoinFilterGraph(this, unique.c_str());
  if (FAILED(hr)) {
    return hr;
  }
  filter->SetSyncSource(clock_.Get());
  filters_.push_back({std::move(unique), ComPtr<IBaseFilter>(filter)});
  return isTakenName ? VFW_S_DUPLICATE_NAME : S_OK;
}

HRESULT FilterGraph::RemoveFilter(IBaseFilter* filter) {
  const os::MutexLock guard(lock_);
  if (state_ != State_Stopped) {
    return VFW_E_NOT_STOPPED;
  }
  const Entry* const entry = FindEntry(filter);
  if (entry == nullptr) {
    return VFW_E_NOT_IN_GRAPH;
  }
  ForEachPin(filter, [](IPin* pin) {
    if (const ComPtr<IPin> peer = PeerOf(pin)) {
      peer->Disconnect();
      pin->Disconnect();
    }
  });
  const ComPtr<IBaseFilter> removed = entry->filter;
  filters_.erase(filters_.begin() + (entry - filters_.data()));
  removed->SetSyncSource(nullptr);
  return removed->JoinFilterGraph(nullptr, nullptr);
}

HRESULT FilterGraph::EnumFilters(IEnumFilters** enumerator) {
  if (enumerator == nullptr) {
    return E_POINTER;
  }
  return AtComBoundary([&] {
    const os::MutexLock guard(lock_);
    FilterEnumerator::Filters filters;
    for (const Entry& entry : filters_) {
      filters.push_back(entry.filter);
    }
    *enumerator = FilterEnumerator::Create(std::move(filters)).Detach();
    return S_OK;
  });
}

HRESULT FilterGraph::FindFilterByName(LPCWSTR name, IBaseFilter** filter) {
  if (name == nullptr || filter == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  for (const Entry& entry : filters_) {
    if (entry.name == name) {
      *filter = ComPtr<IBaseFilter>(entry.filter).Detach();
      return S_OK;
    }
  }
  *filter = nullptr;
  return VFW_E_NOT_FOUND;
}

bool FilterGraph::Reaches(IBaseFilter* from, IBaseFilter* to) {
  // Every filter once: pins may have been connected in a circle without the graph.
  std::set<IBaseFilter*> visited;
  const std::function<bool(IBaseFilter*)> reaches = [&](IBaseFilter* filter) {
    if (IsSameObject(filter, to)) {
      return true;
    }
    bool found = false;
    if (visited.insert(filter).second) {
      ForEachPin(filter, [&](IPin* pin) {
        if (!found && IsOutput(pin)) {
          const ComPtr<IBaseFilter> next = FilterOf(PeerOf(pin).Get());
          found = next && reaches(next.Get());
        }
      });
    }
    return found;
  };
  return reaches(from);
}

HRESULT FilterGraph::ConnectDirect(IPin* output, IPin* input, const AM_MEDIA_TYPE* type) {
  if (output == nullptr || input == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  const ComPtr<IBaseFilter> from = FilterOf(output);
  const ComPtr<IBaseFilter> to = FilterOf(input);
  if (!from || !to || FindEntry(from.Get()) == nullptr || FindEntry(to.Get()) == nullptr) {
    return VFW_E_NOT_IN_GRAPH;
  }
  const HRESULT isOpen =
      AtComBoundary([&] { return Reaches(to.Get(), from.Get()) ? VFW_E_CIRCULAR_GRAPH : S_OK; });
  return FAILED(isOpen) ? isOpen : output->Connect(input, type);
}

HRESULT FilterGraph::Reconnect(IPin* pin) {
  if (pin == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  const ComPtr<IPin> peer = PeerOf(pin);
  if (!peer) {
    return VFW_E_NOT_CONNECTED;
  }
  IPin* const output = IsOutput(pin) ? pin : peer.Get();
  IPin* const input = IsOutput(pin) ? peer.Get() : pin;
  HRESULT hr = output->Disconnect();
  if (FAILED(hr)) {
    return hr;
  }
  hr = input->Disconnect();
  return FAILED(hr) ? hr : output->Connect(input, nullptr);
}

HRESULT FilterGraph::Disconnect(IPin* pin) {
  if (pin == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  return pin->Disconnect();
}

HRESULT FilterGraph::SetDefaultSyncSource() {
  return SetSyncSource(nullptr);
}

HRESULT FilterGraph::GetClassID(CLSID* clsid) {
  if (clsid == nullptr) {
    return E_POINTER;
  }
  *clsid = kFilterGraphClass;
  return S_OK;
}

HRESULT FilterGraph::Notify(LONG code, LONG_PTR parameter1, LONG_PTR parameter2) {
  const HRESULT hr = AtComBoundary([&] {
    const os::MutexLock guard(eventLock_);
    events_.push_back({code, parameter1, parameter2});
    if (events_.size() > kMaxEvents) {
      events_.pop_front();
    }
    return S_OK;
  });
  eventPosted_.NotifyOne();
  return hr;
}

std::optional<GraphEvent> FilterGraph::GetEvent(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const os::MutexLock guard(eventLock_);
  while (events_.empty()) {
    if (!eventPosted_.WaitUntil(eventLock_, deadline) && events_.empty()) {
      return std::nullopt;
    }
  }
  const GraphEvent event = events_.front();
  events_.pop_front();
  return event;
}

std::vector<ComPtr<IBaseFilter>> FilterGraph::DownstreamFirst() {
  std::vector<ComPtr<IBaseFilter>> ordered;
  std::set<IBaseFilter*> visited;
  const std::function<void(const ComPtr<IBaseFilter>&)> visit =
      [&](const ComPtr<IBaseFilter>& filter) {
        if (!visited.insert(filter.Get()).second) {
          return;
        }
        ForEachPin(filter.Get(), [&](IPin* pin) {
          lock_.AssertHeld();
          if (IsOutput(pin)) {
            if (const Entry* const next = FindEntry(FilterOf(PeerOf(pin).Get()).Get())) {
              visit(ComPtr<IBaseFilter>(next->filter));
            }
          }
        });
        ordered.push_back(filter);
      };
  for (const Entry& entry : filters_) {
    visit(entry.filter);
  }
  return ordered;
}

template <typename Change>
HRESULT FilterGraph::ForEachFilter(const Change& change) {
  return AtComBoundary([&] {
    lock_.AssertHeld();
    for (const ComPtr<IBaseFilter>& filter : DownstreamFirst()) {
      const HRESULT hr = change(filter.Get());
      if (FAILED(hr)) {
        return hr;
      }
    }
    return S_OK;
  });
}

HRESULT FilterGraph::StopAll() {
  HRESULT result = S_OK;
  const auto stop = [&result](IBaseFilter* filter) {
    const HRESULT hr = filter->Stop();
    if (FAILED(hr) && SUCCEEDED(result)) {
      result = hr;
    }
    return S_OK;
  };
  // Without memory for the order, in any order.
  if (FAILED(ForEachFilter(stop))) {
    for (const Entry& entry : filters_) {
      stop(entry.filter.Get());
    }
  }
  state_ = State_Stopped;
  pausedAt_ = 0;
  return result;
}

HRESULT FilterGraph::StopAfter(HRESULT failure) {
  StopAll();
  return failure;
}

HRESULT FilterGraph::Stop() {
  const os::MutexLock guard(lock_);
  return StopAll();
}

HRESULT FilterGraph::Pause() {
  const os::MutexLock guard(lock_);
  if (state_ == State_Running && clock_) {
    REFERENCE_TIME now = 0;
    if (SUCCEEDED(clock_->GetTime(&now))) {
      pausedAt_ = SubtractTimes(now, start_);
    }
  }
  const HRESULT hr = ForEachFilter([](IBaseFilter* filter) { return filter->Pause(); });
  if (FAILED(hr)) {
    return StopAfter(hr);
  }
  state_ = State_Paused;
  return S_OK;
}

HRESULT FilterGraph::Run(REFERENCE_TIME start) {
  const os::MutexLock guard(lock_);
  if (state_ == State_Running) {
    return S_OK;
  }
  if (state_ == State_Stopped) {
    const HRESULT hr = Pause();
    if (FAILED(hr)) {
      return hr;
    }
  }
  start_ = start;
  REFERENCE_TIME now = 0;
  if (start == 0 && clock_ && SUCCEEDED(clock_->GetTime(&now))) {
    // Stream time continues where the pause held it.
    start_ = AddTimes(SubtractTimes(now, pausedAt_), kStartDelay);
  }
  const REFERENCE_TIME begin = start_;
  const HRESULT hr = ForEachFilter([begin](IBaseFilter* filter) { return filter->Run(begin); });
  if (FAILED(hr)) {
    return StopAfter(hr);
  }
  state_ = State_Running;
  return S_OK;
}

HRESULT FilterGraph::GetState(DWORD /*milliseconds*/, FILTER_STATE* state) {
  if (state == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  *state = state_;
  return S_OK;
}

HRESULT FilterGraph::SetSyncSource(IReferenceClock* clock) {
  const os::MutexLock guard(lock_);
  if (state_ != State_Stopped) {
    return VFW_E_NOT_STOPPED;
  }
  clock_ = ComPtr<IReferenceClock>(clock);
  for (const Entry& entry : filters_) {
    const HRESULT hr = entry.filter->SetSyncSource(clock);
    if (FAILED(hr)) {
      return hr;
    }
  }
  return S_OK;
}

HRESULT FilterGraph::GetSyncSource(IReferenceClock** clock) {
  if (clock == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  *clock = ComPtr<IReferenceClock>(clock_).Detach();
  return S_OK;
}
