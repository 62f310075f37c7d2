// Media samples and the allocators that own their buffers.
#pragma once

#include "platform/com/com.h"
#include "platform/dshow/media_types.h"

struct ALLOCATOR_PROPERTIES {
  LONG cBuffers;  // number of buffers
  LONG cbBuffer;  // bytes in each, without the prefix
  LONG cbAlign;   // alignment of a buffer's data, bytes
  LONG cbPrefix;  // bytes before a buffer's data
};

// AM_SAMPLE2_PROPERTIES::dwSampleFlags
inline constexpr DWORD AM_SAMPLE_SPLICEPOINT = 0x001;
inline constexpr DWORD AM_SAMPLE_PREROLL = 0x002;
inline constexpr DWORD AM_SAMPLE_DATADISCONTINUITY = 0x004;
inline constexpr DWORD AM_SAMPLE_TYPECHANGED = 0x008;
inline constexpr DWORD AM_SAMPLE_TIMEVALID = 0x010;
inline constexpr DWORD AM_SAMPLE_TIMEDISCONTINUITY = 0x040;
inline constexpr DWORD AM_SAMPLE_STOPVALID = 0x100;
inline constexpr DWORD AM_STREAM_MEDIA = 0;

// Flags of IMemAllocator::GetBuffer
inline constexpr DWORD AM_GBF_NOWAIT = 4;

struct AM_SAMPLE2_PROPERTIES {
  DWORD cbData;  // bytes of this structure that are filled
  DWORD dwTypeSpecificFlags;
  DWORD dwSampleFlags;
  LONG lActual;
  REFERENCE_TIME tStart;
  REFERENCE_TIME tStop;
  DWORD dwStreamId;
  AM_MEDIA_TYPE* pMediaType;  // owned by the sample
  BYTE* pbBuffer;
  LONG cbBuffer;
};
static_assert(sizeof(AM_SAMPLE2_PROPERTIES) == 64);

inline constexpr IID IID_IMediaSample{
    0x56A8689A, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
inline constexpr IID IID_IMediaSample2{
    0x36B73884, 0xC2C8, 0x11CF, {0x8B, 0x46, 0x00, 0x80, 0x5F, 0x6C, 0xEF, 0x60}};
inline constexpr IID IID_IMemAllocator{
    0x56A8689C, 0x0AD4, 0x11CE, {0xB0, 0x3A, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};

class IMediaSample : public IUnknown {
 public:
  virtual HRESULT GetPointer(BYTE** buffer) = 0;
  virtual LONG GetSize() = 0;
  // S_OK with both times, VFW_S_NO_STOP_TIME with the start alone (stop = start + 1),
  // VFW_E_SAMPLE_TIME_NOT_SET with none.
  virtual HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
  // Null pointers take the times away.
  virtual HRESULT SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) = 0;
  virtual HRESULT IsSyncPoint() = 0;
  virtual HRESULT SetSyncPoint(BOOL isSyncPoint) = 0;
  virtual HRESULT IsPreroll() = 0;
  virtual HRESULT SetPreroll(BOOL isPreroll) = 0;
  virtual LONG GetActualDataLength() = 0;
  virtual HRESULT SetActualDataLength(LONG length) = 0;
  // S_OK with a copy that the caller frees; S_FALSE and null when the format has not changed.
  virtual HRESULT GetMediaType(AM_MEDIA_TYPE** type) = 0;
  virtual HRESULT SetMediaType(AM_MEDIA_TYPE* type) = 0;
  virtual HRESULT IsDiscontinuity() = 0;
  virtual HRESULT SetDiscontinuity(BOOL isDiscontinuity) = 0;
  virtual HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) = 0;
  virtual HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) = 0;

 protected:
  ~IMediaSample() = default;
};

class IMediaSample2 : public IMediaSample {
 public:
  // Copies the first size bytes of the sample's AM_SAMPLE2_PROPERTIES out or in.
  virtual HRESULT GetProperties(DWORD size, BYTE* properties) = 0;
  virtual HRESULT SetProperties(DWORD size, const BYTE* properties) = 0;

 protected:
  ~IMediaSample2() = default;
};

class IMemAllocator : public IUnknown {
 public:
  virtual HRESULT SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) = 0;
  virtual HRESULT GetProperties(ALLOCATOR_PROPERTIES* properties) = 0;
  virtual HRESULT Commit() = 0;
  virtual HRESULT Decommit() = 0;
  // Blocks until a sample is free (VFW_E_TIMEOUT at once with AM_GBF_NOWAIT) or the allocator is
  // decommitted (VFW_E_NOT_COMMITTED).
  virtual HRESULT GetBuffer(IMediaSample** sample, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                            DWORD flags) = 0;
  // Called by a sample whose last reference is gone.
  virtual HRESULT ReleaseBuffer(IMediaSample* sample) = 0;

 protected:
  ~IMemAllocator() = default;
};

template <>
struct InterfaceId<IMediaSample> {
  static constexpr const IID& value = IID_IMediaSample;
};
template <>
struct InterfaceId<IMediaSample2> {
  static constexpr const IID& value = IID_IMediaSample2;
};
template <>
struct InterfaceId<IMemAllocator> {
  static constexpr const IID& value = IID_IMemAllocator;
};
