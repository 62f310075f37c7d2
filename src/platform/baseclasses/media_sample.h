// CMediaSample: one buffer of an allocator, with its times, flags and media type. CBaseAllocator
// and CMemAllocator: pools of samples.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "platform/baseclasses/mtype.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"
#include "platform/os/mutex.h"

class CBaseAllocator;

// A sample belongs to its allocator for its whole life; while it is referenced it is outside the
// pool and keeps its allocator alive. The last Release clears times, flags and type and returns the
// sample, where CUnknown would delete it. AddRef and Release on any thread; everything else on the
// thread that the sample has been handed to.
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

  // Sets another buffer of the allocator, while the sample is free or has just been given out.
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

// The pool's bookkeeping, for any kind of memory: properties that are fixed while the pool is
// committed, a list of free samples, GetBuffer that waits for one. Samples that are outside at
// Decommit stay valid; the memory is freed when the last one has been returned. Safe on any thread.
class CBaseAllocator : public CUnknown, public IMemAllocator {
 public:
  DECLARE_IUNKNOWN

  CBaseAllocator(const char* name, IUnknown* outer, HRESULT* hr);
  ~CBaseAllocator() override;

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  // The count and size as asked for, the size rounded up so that every buffer keeps the alignment.
  // Errors: VFW_E_ALREADY_COMMITTED, VFW_E_BUFFERS_OUTSTANDING, VFW_E_BADALIGN (not a power of
  // two), E_INVALIDARG (negative, or too large together).
  HRESULT SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) override;
  HRESULT GetProperties(ALLOCATOR_PROPERTIES* properties) override;
  HRESULT Commit() override;
  HRESULT Decommit() override;
  HRESULT GetBuffer(IMediaSample** sample, REFERENCE_TIME* start, REFERENCE_TIME* stop,
                    DWORD flags) override;
  HRESULT ReleaseBuffer(IMediaSample* sample) override;

  // Samples that are free now; for tests and diagnostics.
  LONG GetFreeCount();

 protected:
  // Makes the samples (with AddFree). VFW_E_SIZENOTSET without properties. May throw.
  virtual HRESULT Alloc() REQUIRES(lock_);
  // Destroys them, or as many as an Alloc that failed has made; called with every sample returned.
  virtual void Free() REQUIRES(lock_) = 0;

  void AddFree(CMediaSample* sample) REQUIRES(lock_);
  void ForgetFree() REQUIRES(lock_) { free_ = nullptr; }
  // Calls visit(CMediaSample&) for every free sample.
  template <typename Visit>
  void VisitFree(const Visit& visit) REQUIRES(lock_) {
    for (CMediaSample* sample = free_; sample != nullptr; sample = sample->m_pNext) {
      visit(*sample);
    }
  }

  os::Mutex lock_;
  ALLOCATOR_PROPERTIES m_properties GUARDED_BY(lock_){};

 private:
  os::ConditionVariable freed_;
  CMediaSample* free_ GUARDED_BY(lock_) = nullptr;
  LONG outside_ GUARDED_BY(lock_) = 0;
  bool committed_ GUARDED_BY(lock_) = false;
  bool decommitInProgress_ GUARDED_BY(lock_) = false;
};

// Samples over plain memory, in one block.
class CMemAllocator : public CBaseAllocator {
 public:
  CMemAllocator(const char* name, IUnknown* outer, HRESULT* hr);
  ~CMemAllocator() override;

  // A new allocator with one reference. Throws std::bad_alloc.
  static ComPtr<IMemAllocator> Create();

 protected:
  HRESULT Alloc() override REQUIRES(lock_);
  void Free() override REQUIRES(lock_);

 private:
  struct BlockDeleter {
    void operator()(BYTE* block) const;
  };
  std::unique_ptr<BYTE, BlockDeleter> block_;
  std::vector<std::unique_ptr<CMediaSample>> samples_;
};
