// FilterGraph: the filters of a graph, their connections, states and events.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/filters.h"
#include "platform/os/mutex.h"

// An event that a filter posted.
struct GraphEvent {
  LONG code;
  LONG_PTR parameter1;
  LONG_PTR parameter2;
};

// Owns its filters (one reference each) and hands them the clock and the state changes: downstream
// filters first, so that no filter receives what it is not ready for. The graph's methods belong to
// the application's thread; events may be posted from any thread and are kept in a queue of bounded
// length, whose oldest entry is dropped first. Filters are called with no lock held, except the
// recursive one of the graph's methods.
class FilterGraph final : public CUnknown,
                          public IFilterGraph,
                          public IMediaFilter,
                          public IMediaEventSink {
 public:
  DECLARE_IUNKNOWN

  static constexpr std::size_t kMaxEvents = 1024;

  // A new graph with one reference.
  static ComPtr<FilterGraph> Create();
  FilterGraph();
  ~FilterGraph() override;

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  // The graph must be stopped for a change of its filters. A taken name is made unique
  // (VFW_S_DUPLICATE_NAME).
  HRESULT AddFilter(IBaseFilter* filter, LPCWSTR name) override;
  // Disconnects the filter's pins first, on both sides.
  HRESULT RemoveFilter(IBaseFilter* filter) override;
  HRESULT EnumFilters(IEnumFilters** enumerator) override;
  HRESULT FindFilterByName(LPCWSTR name, IBaseFilter** filter) override;
  // type may be null: the pins then agree on one. VFW_E_NOT_IN_GRAPH unless both filters are here,
  // VFW_E_CIRCULAR_GRAPH when the connection would close a circle.
  HRESULT ConnectDirect(IPin* output, IPin* input, const AM_MEDIA_TYPE* type) override;
  HRESULT Reconnect(IPin* pin) override;
  HRESULT Disconnect(IPin* pin) override;
  // Sets no clock, so that the filters run free; a host that wants a clock sets it.
  HRESULT SetDefaultSyncSource() override;

  HRESULT GetClassID(CLSID* clsid) override;
  // Every filter is stopped, even when others fail; the first failure is returned.
  HRESULT Stop() override;
  // A filter that fails leaves the graph and all its filters stopped, with the filter's result.
  HRESULT Pause() override;
  // start: clock time of stream time 0; 0 lets the graph choose (now plus a short start delay).
  HRESULT Run(REFERENCE_TIME start) override;
  HRESULT GetState(DWORD milliseconds, FILTER_STATE* state) override;
  HRESULT SetSyncSource(IReferenceClock* clock) override;
  HRESULT GetSyncSource(IReferenceClock** clock) override;

  HRESULT Notify(LONG code, LONG_PTR parameter1, LONG_PTR parameter2) override;

  // The oldest event, waiting at most that long for one.
  std::optional<GraphEvent> GetEvent(std::chrono::milliseconds timeout);

 private:
  struct Entry {
    std::u16string name;
    ComPtr<IBaseFilter> filter;
  };

  Entry* FindEntry(IUnknown* filter) REQUIRES(lock_);
  HRESULT Add(IBaseFilter* filter, LPCWSTR name);
  bool Reaches(IBaseFilter* from, IBaseFilter* to);
  // The filters, each one after all those that it delivers to.
  std::vector<ComPtr<IBaseFilter>> DownstreamFirst() REQUIRES(lock_);
  // Changes every filter, downstream ones first, until one fails.
  template <typename Change>
  HRESULT ForEachFilter(const Change& change) REQUIRES(lock_);
  HRESULT StopAll() REQUIRES(lock_);
  HRESULT StopAfter(HRESULT failure) REQUIRES(lock_);

  os::RecursiveMutex lock_;
  std::vector<Entry> filters_ GUARDED_BY(lock_);
  FILTER_STATE state_ GUARDED_BY(lock_) = State_Stopped;
  ComPtr<IReferenceClock> clock_ GUARDED_BY(lock_);
  REFERENCE_TIME start_ GUARDED_BY(lock_) = 0;
  REFERENCE_TIME pausedAt_ GUARDED_BY(lock_) = 0;

  os::Mutex eventLock_;
  os::ConditionVariable eventPosted_;
  std::deque<GraphEvent> events_ GUARDED_BY(eventLock_);
};
