// CMediaSample: one buffer of an allocator, with its times, flags and media type.
#pragma once

#include <atomic>

#include "platform/baseclasses/mtype.h"
#include "platform/dshow/media.h"

class CBaseAllocator;

// A sample belongs to its allocator for its whole life; while somebody holds a reference it is
// outside and keeps its allocator alive. The last Release takes times, flags and type away and
// hands the sample back, where CUnknown would delete it. Counting is safe on any thread; everything
// else belongs to the thread that the sample has been handed to.
class CMediaSample : public IMediaSample2 {
 public:
  // buffer has length bytes and belongs to the allocator.
  CMediaSample(const char* name, CBaseAllocator* allocator, HRESULT* hr, BYTE* buffer, LONG length);
  virtual ~CMediaSample();
  CMediaSample(const CMediaSample&) = delete;
  CMediaSample& operator=(const CMediaSample&) = delete;

  HRESULT QueryInterface(REFIID iid, void** object) override;
  ULONG AddRef() override;
  ULONG Release() override;

  // Another buffer of the allocator's, while the sample is free or has just been given out.
  HRESULT SetPointer(BYTE* buffer, LONG length);

  HRESULT GetPointer(BYTE** buffer) override;
  LONG GetSize() override;
  HRESULT GetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
  HRESULT SetTime(REFERENCE_TIME* start, REFERENCE_TIME* stop) override;
  HRESULT IsSyncPoint() override;
  HRESULT SetSyncPoint(BOOL isSyncPoint) override;
  HRESULT IsPreroll() override;
  HRESULT SetPreroll(BOOL isPreroll) override;
  LONG GetActualDataLength() override;
  HRESULT SetActualDataLength(LONG length) override;
  HRESULT GetMediaType(AM_MEDIA_TYPE** type) override;
  HRESULT SetMediaType(AM_MEDIA_TYPE* type) override;
  HRESULT IsDiscontinuity() override;
  HRESULT SetDiscontinuity(BOOL isDiscontinuity) override;
  HRESULT GetMediaTime(LONGLONG* start, LONGLONG* stop) override;
  HRESULT SetMediaTime(LONGLONG* start, LONGLONG* stop) override;
  HRESULT GetProperties(DWORD size, BYTE* properties) override;
  HRESULT SetProperties(DWORD size, const BYTE* properties) override;

 private:
  friend class CBaseAllocator;

  void SetFlag(DWORD flag, bool on) { m_dwFlags = on ? m_dwFlags | flag : m_dwFlags & ~flag; }
  HRESULT FlagResult(DWORD flag) const { return (m_dwFlags & flag) != 0 ? S_OK : S_FALSE; }
  void Forget();

  CBaseAllocator* m_pAllocator;
  BYTE* m_pBuffer;
  LONG m_cbBuffer;
  LONG m_lActual;
  std::atomic<LONG> m_cRef{0};
  DWORD m_dwFlags = 0;  // AM_SAMPLE_*
  DWORD m_dwTypeSpecificFlags = 0;
  DWORD m_dwStreamId = AM_STREAM_MEDIA;
  REFERENCE_TIME m_Start = 0;
  REFERENCE_TIME m_End = 0;
  bool m_hasMediaTime = false;
  LONGLONG m_MediaStart = 0;
  LONGLONG m_MediaEnd = 0;
  OwnedMediaType m_pMediaType;
  CMediaSample* m_pNext = nullptr;  // free list of the allocator, guarded by its lock
};
