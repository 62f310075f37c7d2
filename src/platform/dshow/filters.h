// Filters, their pins and what the pins exchange, reference clocks, and the graph that holds them.
#pragma once

#include "platform/com/com.h"
#include "platform/dshow/media.h"

class IBaseFilter;
class IPin;

enum PIN_DIRECTION { PINDIR_INPUT = 0, PINDIR_OUTPUT = 1 };

inline constexpr std::size_t MAX_PIN_NAME = 128;

struct PIN_INFO {
  IBaseFilter* pFilter;  // counted reference, may be null
  PIN_DIRECTION dir;
  WCHAR achName[MAX_PIN_NAME];
};

enum QualityMessageType { Famine = 0, Flood = 1 };

struct Quality {
  QualityMessageType Type;
  LONG Proportion;  // thousandths of the present rate
  REFERENCE_TIME Late;
  REFERENCE_TIME TimeStamp;
};

inline constexpr IID IID_IPin{
    0x56A86891, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IEnumPins{
    0x56A86892, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IEnumMediaTypes{
    0x89C31040, 0x846B, 0x11CE, {0x97, 0xD3, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};
inline constexpr IID IID_IMemInputPin{
    0x56A8689D, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IPinConnection{
    0x4A9A62D3, 0x27D4, 0x403D, {0x91, 0xE9, 0x89, 0xF5, 0x40, 0xE5, 0x55, 0x34}};
inline constexpr IID IID_IQualityControl{
    0x56A868A5, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};

class IEnumMediaTypes : public IUnknown {
 public:
  virtual HRESULT Next(ULONG count, AM_MEDIA_TYPE** types, ULONG* fetched) = 0;
  virtual HRESULT Skip(ULONG count) = 0;
  virtual HRESULT Reset() = 0;
  virtual HRESULT Clone(IEnumMediaTypes** copy) = 0;

 protected:
  ~IEnumMediaTypes() = default;
};

class IPin : public IUnknown {
 public:
  virtual HRESULT Connect(IPin* receivePin, const AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT Disconnect() = 0;
  virtual HRESULT ConnectedTo(IPin** pin) = 0;
  // Fills *type; the caller frees what it holds.
  virtual HRESULT ConnectionMediaType(AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT QueryPinInfo(PIN_INFO* info) = 0;
  virtual HRESULT QueryDirection(PIN_DIRECTION* direction) = 0;
  virtual HRESULT QueryId(LPWSTR* id) = 0;
  virtual HRESULT QueryAccept(const AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT EnumMediaTypes(IEnumMediaTypes** enumerator) = 0;
  virtual HRESULT QueryInternalConnections(IPin** pins, ULONG* count) = 0;
  virtual HRESULT EndOfStream() = 0;
  virtual HRESULT BeginFlush() = 0;
  virtual HRESULT EndFlush() = 0;
  virtual HRESULT NewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) = 0;

 protected:
  ~IPin() = default;
};

class IEnumPins : public IUnknown {
 public:
  virtual HRESULT Next(ULONG count, IPin** pins, ULONG* fetched) = 0;
  virtual HRESULT Skip(ULONG count) = 0;
  virtual HRESULT Reset() = 0;
  virtual HRESULT Clone(IEnumPins** copy) = 0;

 protected:
  ~IEnumPins() = default;
};

class IMemInputPin : public IUnknown {
 public:
  virtual HRESULT GetAllocator(IMemAllocator** allocator) = 0;
  virtual HRESULT NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) = 0;
  virtual HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) = 0;
  virtual HRESULT Receive(IMediaSample* sample) = 0;
  virtual HRESULT ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) = 0;
  virtual HRESULT ReceiveCanBlock() = 0;

 protected:
  ~IMemInputPin() = default;
};

// An input pin that can take another media type while the graph runs.
class IPinConnection : public IUnknown {
 public:
  virtual HRESULT DynamicQueryAccept(const AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT NotifyEndOfStream(void* notifyEvent) = 0;
  virtual HRESULT IsEndPin() = 0;
  virtual HRESULT DynamicDisconnect() = 0;

 protected:
  ~IPinConnection() = default;
};

class IQualityControl : public IUnknown {
 public:
  virtual HRESULT Notify(IBaseFilter* self, Quality quality) = 0;
  virtual HRESULT SetSink(IQualityControl* sink) = 0;

 protected:
  ~IQualityControl() = default;
};

template <>
struct InterfaceId<IPin> {
  static constexpr const IID& value = IID_IPin;
};
template <>
struct InterfaceId<IEnumPins> {
  static constexpr const IID& value = IID_IEnumPins;
};
template <>
struct InterfaceId<IEnumMediaTypes> {
  static constexpr const IID& value = IID_IEnumMediaTypes;
};
template <>
struct InterfaceId<IMemInputPin> {
  static constexpr const IID& value = IID_IMemInputPin;
};
template <>
struct InterfaceId<IPinConnection> {
  static constexpr const IID& value = IID_IPinConnection;
};
template <>
struct InterfaceId<IQualityControl> {
  static constexpr const IID& value = IID_IQualityControl;
};

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
