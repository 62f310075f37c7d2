// Pins, their enumerators, and what travels between two connected pins.
#pragma once

#include "platform/com/com.h"
#include "platform/dshow/media_types.h"
#include "platform/dshow/samples.h"

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
