// The states of a graph: stop, pause, run, and the clock that the filters run by.

#include <functional>
#include <set>

#include "platform/baseclasses/com_boundary.h"
#include "platform/dshow/reference_time.h"
#include "platform/dshow/vfw_errors.h"
#include "platform/graph/filter_graph.h"
#include "platform/graph/pin_walk.h"

namespace {

// Between the call of Run and the first picture that is due, 100 ns units.
constexpr REFERENCE_TIME kStartDelay = 100000;

}  // namespace

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

template <typename Change>
HRESULT FilterGraph::ForEachFilter(const Change& change) {
  return AtComBoundary([&] {
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
  const std::lock_guard guard(lock_);
  return StopAll();
}

HRESULT FilterGraph::Pause() {
  const std::lock_guard guard(lock_);
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
    start_ = AddTimes(SubtractTimes(now, pausedAt_), kStartDelay);
  }
  const HRESULT hr = ForEachFilter([this](IBaseFilter* filter) { return filter->Run(start_); });
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
