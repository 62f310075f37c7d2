// CBaseAllocator and CMemAllocator: pools of samples.
#pragma once

#include <memory>
#include <vector>

#include "platform/baseclasses/media_sample.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/com/com.h"
#include "platform/os/mutex.h"

// The pool's bookkeeping, whatever the memory behind its samples: properties that stand still while
// the pool is committed, a list of free samples, GetBuffer that waits for one. Samples that are
// outside at Decommit stay valid; the memory is freed when the last one has come home. Safe on any
// thread.
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
  // Destroys them, or as many as an Alloc that failed has made; called with every sample home.
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
