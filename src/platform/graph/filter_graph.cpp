#include "platform/graph/filter_graph.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <set>

#include "platform/dshow/vfw_errors.h"

namespace {

constexpr CLSID kFilterGraphClass{
    0xE436EBB3, 0x524F, 0x11CE, {0x9F, 0x53, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
// Between the call of Run and the first picture that is due, 100 ns units.
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

ComPtr<IPin> PeerOf(IPin* pin) {
  ComPtr<IPin> peer;
  pin->ConnectedTo(peer.Put());
  return peer;
}

bool IsOutput(IPin* pin) {
  PIN_DIRECTION direction{};
  return SUCCEEDED(pin->QueryDirection(&direction)) && direction == PINDIR_OUTPUT;
}

// Walks a snapshot of the graph's filters.
class FilterEnumerator final : public IEnumFilters {
 public:
  explicit FilterEnumerator(std::vector<ComPtr<IBaseFilter>> filters)
      : filters_(std::move(filters)) {}
  FilterEnumerator(const FilterEnumerator& other)
      : filters_(other.filters_), position_(other.position_) {}
  FilterEnumerator& operator=(const FilterEnumerator&) = delete;

  HRESULT QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) {
      return E_POINTER;
    }
    if (iid != IID_IUnknown && iid != IID_IEnumFilters) {
      *object = nullptr;
      return E_NOINTERFACE;
    }
    *object = static_cast<IEnumFilters*>(this);
    AddRef();
    return S_OK;
  }
  ULONG AddRef() override { return static_cast<ULONG>(count_.fetch_add(1) + 1); }
  ULONG Release() override {
    const LONG left = count_.fetch_sub(1) - 1;
    if (left == 0) {
      delete this;
    }
    return static_cast<ULONG>(left);
  }
  HRESULT Next(ULONG count, IBaseFilter** filters, ULONG* fetched) override {
    if (filters == nullptr) {
      return E_POINTER;
    }
    ULONG given = 0;
    while (given < count && position_ < filters_.size()) {
      filters[given++] = ComPtr<IBaseFilter>(filters_[position_++]).Detach();
    }
    if (fetched != nullptr) {
      *fetched = given;
    }
    return given == count ? S_OK : S_FALSE;
  }
  HRESULT Skip(ULONG count) override {
    const std::size_t left = filters_.size() - position_;
    position_ += std::min<std::size_t>(count, left);
    return count <= left ? S_OK : S_FALSE;
  }
  HRESULT Reset() override {
    position_ = 0;
    return S_OK;
  }
  HRESULT Clone(IEnumFilters** copy) override {
    if (copy == nullptr) {
      return E_POINTER;
    }
    *copy = ComPtr<IEnumFilters>(new FilterEnumerator(*this)).Detach();
    return S_OK;
  }

 private:
  ~FilterEnumerator() = default;

  std::vector<ComPtr<IBaseFilter>> filters_;
  std::size_t position_ = 0;
  std::atomic<LONG> count_{0};
};

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
  const std::lock_guard guard(lock_);
  if (state_ != State_Stopped) {
    return VFW_E_NOT_STOPPED;
  }
  if (FindEntry(filter) != nullptr) {
    return E_INVALIDARG;
  }
  const std::u16string wanted = name != nullptr && *name != 0 ? name : u"Filter";
  const auto isTaken = [&](const std::u16string& candidate) {
    return std::any_of(filters_.begin(), filters_.end(),
                       [&](const Entry& entry) { return entry.name == candidate; });
  };
  std::u16string unique = wanted;
  for (int number = 2; isTaken(unique); ++number) {
    const std::string suffix = " " + std::to_string(number);
    unique = wanted + std::u16string(suffix.begin(), suffix.end());
  }
  const HRESULT hr = filter->JoinFilterGraph(this, unique.c_str());
  if (FAILED(hr)) {
    return hr;
  }
  filter->SetSyncSource(clock_.Get());
  filters_.push_back({unique, ComPtr<IBaseFilter>(filter)});
  return unique == wanted ? S_OK : VFW_S_DUPLICATE_NAME;
}

HRESULT FilterGraph::RemoveFilter(IBaseFilter* filter) {
  const std::lock_guard guard(lock_);
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
  const std::lock_guard guard(lock_);
  std::vector<ComPtr<IBaseFilter>> filters;
  for (const Entry& entry : filters_) {
    filters.push_back(entry.filter);
  }
  *enumerator = ComPtr<IEnumFilters>(new FilterEnumerator(std::move(filters))).Detach();
  return S_OK;
}

HRESULT FilterGraph::FindFilterByName(LPCWSTR name, IBaseFilter** filter) {
  if (name == nullptr || filter == nullptr) {
    return E_POINTER;
  }
  const std::lock_guard guard(lock_);
  for (const Entry& entry : filters_) {
    if (entry.name == name) {
      *filter = ComPtr<IBaseFilter>(entry.filter).Detach();
      return S_OK;
    }
  }
  *filter = nullptr;
  return VFW_E_NOT_FOUND;
}

ComPtr<IBaseFilter> FilterGraph::FilterOf(IPin* pin) {
  PIN_INFO info{};
  return pin != nullptr && SUCCEEDED(pin->QueryPinInfo(&info))
             ? ComPtr<IBaseFilter>::Adopt(info.pFilter)
             : nullptr;
}

bool FilterGraph::Reaches(IBaseFilter* from, IBaseFilter* to) {
  if (IsSameObject(from, to)) {
    return true;
  }
  bool found = false;
  ForEachPin(from, [&](IPin* pin) {
    if (found || !IsOutput(pin)) {
      return;
    }
    if (const ComPtr<IBaseFilter> next = FilterOf(PeerOf(pin).Get())) {
      found = Reaches(next.Get(), to);
    }
  });
  return found;
}

HRESULT FilterGraph::ConnectDirect(IPin* output, IPin* input, const AM_MEDIA_TYPE* type) {
  if (output == nullptr || input == nullptr) {
    return E_POINTER;
  }
  const std::lock_guard guard(lock_);
  const ComPtr<IBaseFilter> from = FilterOf(output);
  const ComPtr<IBaseFilter> to = FilterOf(input);
  if (!from || !to || FindEntry(from.Get()) == nullptr || FindEntry(to.Get()) == nullptr) {
    return VFW_E_NOT_IN_GRAPH;
  }
  if (Reaches(to.Get(), from.Get())) {
    return VFW_E_CIRCULAR_GRAPH;
  }
  return output->Connect(input, type);
}

HRESULT FilterGraph::Reconnect(IPin* pin) {
  if (pin == nullptr) {
    return E_POINTER;
  }
  const std::lock_guard guard(lock_);
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
  const std::lock_guard guard(lock_);
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

std::vector<ComPtr<IBaseFilter>> FilterGraph::DownstreamFirst() {
  std::vector<ComPtr<IBaseFilter>> ordered;
  std::set<IBaseFilter*> visited;
  const std::function<void(const ComPtr<IBaseFilter>&)> visit =
      [&](const ComPtr<IBaseFilter>& filter) {
        if (!visited.insert(filter.Get()).second) {
          return;
        }
        ForEachPin(filter.Get(), [&](IPin* pin) {
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

HRESULT FilterGraph::StopAll() {
  HRESULT result = S_OK;
  for (const ComPtr<IBaseFilter>& filter : DownstreamFirst()) {
    const HRESULT hr = filter->Stop();
    if (FAILED(hr) && SUCCEEDED(result)) {
      result = hr;
    }
  }
  return result;
}

HRESULT FilterGraph::Stop() {
  const std::lock_guard guard(lock_);
  const HRESULT hr = StopAll();
  state_ = State_Stopped;
  pausedAt_ = 0;
  return hr;
}

HRESULT FilterGraph::Pause() {
  const std::lock_guard guard(lock_);
  const FILTER_STATE former = state_;
  if (former == State_Running && clock_) {
    REFERENCE_TIME now = 0;
    if (SUCCEEDED(clock_->GetTime(&now))) {
      pausedAt_ = now - start_;
    }
  }
  for (const ComPtr<IBaseFilter>& filter : DownstreamFirst()) {
    const HRESULT hr = filter->Pause();
    if (FAILED(hr)) {
      if (former == State_Stopped) {
        StopAll();
      }
      return hr;
    }
  }
  state_ = State_Paused;
  return S_OK;
}

HRESULT FilterGraph::Run(REFERENCE_TIME start) {
  const std::lock_guard guard(lock_);
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
    // Stream time goes on where the pause held it.
    start_ = now - pausedAt_ + kStartDelay;
  }
  for (const ComPtr<IBaseFilter>& filter : DownstreamFirst()) {
    const HRESULT hr = filter->Run(start_);
    if (FAILED(hr)) {
      StopAll();
      state_ = State_Stopped;
      return hr;
    }
  }
  state_ = State_Running;
  return S_OK;
}

HRESULT FilterGraph::GetState(DWORD /*milliseconds*/, FILTER_STATE* state) {
  if (state == nullptr) {
    return E_POINTER;
  }
  const std::lock_guard guard(lock_);
  *state = state_;
  return S_OK;
}

HRESULT FilterGraph::SetSyncSource(IReferenceClock* clock) {
  const std::lock_guard guard(lock_);
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
  const std::lock_guard guard(lock_);
  *clock = ComPtr<IReferenceClock>(clock_).Detach();
  return S_OK;
}

HRESULT FilterGraph::Notify(LONG code, LONG_PTR parameter1, LONG_PTR parameter2) {
  {
    const std::lock_guard guard(eventLock_);
    if (events_.size() == kMaxEvents) {
      events_.pop_front();
    }
    events_.push_back({code, parameter1, parameter2});
  }
  eventPosted_.notify_one();
  return S_OK;
}

std::optional<GraphEvent> FilterGraph::GetEvent(std::chrono::milliseconds timeout) {
  std::unique_lock guard(eventLock_);
  if (!eventPosted_.wait_for(guard, timeout, [&] { return !events_.empty(); })) {
    return std::nullopt;
  }
  const GraphEvent event = events_.front();
  events_.pop_front();
  return event;
}
