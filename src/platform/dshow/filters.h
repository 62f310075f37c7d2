// Filters, reference clocks and the graph that holds them.
#pragma once

#include "platform/com/com.h"
#include "platform/dshow/pins.h"

namespace os {
class Event;
class Semaphore;
}  // namespace os

// What a clock signals; owned by the caller of the clock, which keeps it alive until Unadvise.
using HEVENT = os::Event*;
using HSEMAPHORE = os::Semaphore*;

enum FILTER_STATE { State_Stopped = 0, State_Paused = 1, State_Running = 2 };

inline constexpr std::size_t MAX_FILTER_NAME = 128;

class IFilterGraph;

struct FILTER_INFO {
  WCHAR achName[MAX_FILTER_NAME];
  IFilterGraph* pGraph;  // counted reference, may be null
};

// Graph events
inline constexpr LONG EC_ERRORABORT = 0x03;
inline constexpr LONG EC_USER = 0x8000;

inline constexpr IID IID_IPersist{
    0x0000010C, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IReferenceClock{
    0x56A86897, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IMediaFilter{
    0x56A86899, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IBaseFilter{
    0x56A86895, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IAMovieSetup{
    0xA3D8CEC0, 0x7E5A, 0x11CF, {0xBB, 0xC5, 0x00, 0x80, 0x5F, 0x6C, 0xEF, 0x20}};
inline constexpr IID IID_IFilterGraph{
    0x56A8689F, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IEnumFilters{
    0x56A86893, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IMediaEventSink{
    0x56A868A2, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};

class IPersist : public IUnknown {
 public:
  virtual HRESULT GetClassID(CLSID* clsid) = 0;

 protected:
  ~IPersist() = default;
};

class IReferenceClock : public IUnknown {
 public:
  virtual HRESULT GetTime(REFERENCE_TIME* time) = 0;
  // Sets the event once, at baseTime + streamTime.
  virtual HRESULT AdviseTime(REFERENCE_TIME baseTime, REFERENCE_TIME streamTime, HEVENT event,
                             DWORD_PTR* cookie) = 0;
  // Releases the semaphore by one at startTime and every periodTime after it.
  virtual HRESULT AdvisePeriodic(REFERENCE_TIME startTime, REFERENCE_TIME periodTime,
                                 HSEMAPHORE semaphore, DWORD_PTR* cookie) = 0;
  virtual HRESULT Unadvise(DWORD_PTR cookie) = 0;

 protected:
  ~IReferenceClock() = default;
};

class IMediaFilter : public IPersist {
 public:
  virtual HRESULT Stop() = 0;
  virtual HRESULT Pause() = 0;
  virtual HRESULT Run(REFERENCE_TIME start) = 0;
  virtual HRESULT GetState(DWORD milliseconds, FILTER_STATE* state) = 0;
  virtual HRESULT SetSyncSource(IReferenceClock* clock) = 0;
  virtual HRESULT GetSyncSource(IReferenceClock** clock) = 0;

 protected:
  ~IMediaFilter() = default;
};

class IBaseFilter : public IMediaFilter {
 public:
  virtual HRESULT EnumPins(IEnumPins** enumerator) = 0;
  virtual HRESULT FindPin(LPCWSTR id, IPin** pin) = 0;
  virtual HRESULT QueryFilterInfo(FILTER_INFO* info) = 0;
  virtual HRESULT JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) = 0;
  virtual HRESULT QueryVendorInfo(LPWSTR* info) = 0;

 protected:
  ~IBaseFilter() = default;
};

class IAMovieSetup : public IUnknown {
 public:
  virtual HRESULT Register() = 0;
  virtual HRESULT Unregister() = 0;

 protected:
  ~IAMovieSetup() = default;
};

class IEnumFilters : public IUnknown {
 public:
  virtual HRESULT Next(ULONG count, IBaseFilter** filters, ULONG* fetched) = 0;
  virtual HRESULT Skip(ULONG count) = 0;
  virtual HRESULT Reset() = 0;
  virtual HRESULT Clone(IEnumFilters** copy) = 0;

 protected:
  ~IEnumFilters() = default;
};

class IFilterGraph : public IUnknown {
 public:
  virtual HRESULT AddFilter(IBaseFilter* filter, LPCWSTR name) = 0;
  virtual HRESULT RemoveFilter(IBaseFilter* filter) = 0;
  virtual HRESULT EnumFilters(IEnumFilters** enumerator) = 0;
  virtual HRESULT FindFilterByName(LPCWSTR name, IBaseFilter** filter) = 0;
  virtual HRESULT ConnectDirect(IPin* output, IPin* input, const AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT Reconnect(IPin* pin) = 0;
  virtual HRESULT Disconnect(IPin* pin) = 0;
  virtual HRESULT SetDefaultSyncSource() = 0;

 protected:
  ~IFilterGraph() = default;
};

class IMediaEventSink : public IUnknown {
 public:
  virtual HRESULT Notify(LONG eventCode, LONG_PTR parameter1, LONG_PTR parameter2) = 0;

 protected:
  ~IMediaEventSink() = default;
};

template <>
struct InterfaceId<IPersist> {
  static constexpr const IID& value = IID_IPersist;
};
template <>
struct InterfaceId<IReferenceClock> {
  static constexpr const IID& value = IID_IReferenceClock;
};
template <>
struct InterfaceId<IMediaFilter> {
  static constexpr const IID& value = IID_IMediaFilter;
};
template <>
struct InterfaceId<IBaseFilter> {
  static constexpr const IID& value = IID_IBaseFilter;
};
template <>
struct InterfaceId<IAMovieSetup> {
  static constexpr const IID& value = IID_IAMovieSetup;
};
template <>
struct InterfaceId<IFilterGraph> {
  static constexpr const IID& value = IID_IFilterGraph;
};
template <>
struct InterfaceId<IEnumFilters> {
  static constexpr const IID& value = IID_IEnumFilters;
};
template <>
struct InterfaceId<IMediaEventSink> {
  static constexpr const IID& value = IID_IMediaEventSink;
};
