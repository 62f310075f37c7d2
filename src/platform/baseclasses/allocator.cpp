#include <algorithm>
#include <bit>
#include <cstdlib>
#include <limits>

#include "platform/baseclasses/media_sample.h"
#include "platform/baseclasses/unknown_base.h"
#include "platform/dshow/vfw_errors.h"

CBaseAllocator::CBaseAllocator(const char* name, IUnknown* outer, HRESULT* /*hr*/)
    : CUnknown(name, outer) {}

CBaseAllocator::~CBaseAllocator() = default;

HRESULT CBaseAllocator::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IMemAllocator) {
    return GetInterface(static_cast<IMemAllocator*>(this), object);
  }
  return CUnknown::NonDelegatingQueryInterface(iid, object);
}

HRESULT CBaseAllocator::SetProperties(ALLOCATOR_PROPERTIES* request, ALLOCATOR_PROPERTIES* actual) {
  if (request == nullptr || actual == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  *actual = ALLOCATOR_PROPERTIES{};
  if (request->cBuffers < 0 || request->cbBuffer < 0 || request->cbPrefix < 0) {
    return E_INVALIDARG;
  }
  if (request->cbAlign <= 0 || !std::has_single_bit(static_cast<ULONG>(request->cbAlign))) {
    return VFW_E_BADALIGN;
  }
  if (committed_) {
    return VFW_E_ALREADY_COMMITTED;
  }
  if (outside_ > 0) {
    return VFW_E_BUFFERS_OUTSTANDING;
  }
  const LONGLONG align = request->cbAlign;
  const LONGLONG whole = LONGLONG{request->cbBuffer} + request->cbPrefix;
  const LONGLONG rounded = (whole + align - 1) / align * align;
  if (rounded > std::numeric_limits<LONG>::max()) {
    return E_INVALIDARG;
  }
  const ALLOCATOR_PROPERTIES granted{request->cBuffers,
                                     static_cast<LONG>(rounded - request->cbPrefix),
                                     request->cbAlign, request->cbPrefix};
  m_properties = granted;
  *actual = granted;
  return S_OK;
}

HRESULT CBaseAllocator::GetProperties(ALLOCATOR_PROPERTIES* properties) {
  if (properties == nullptr) {
    return E_POINTER;
  }
  const os::MutexLock guard(lock_);
  *properties = m_properties;
  return S_OK;
}

HRESULT CBaseAllocator::Commit() {
  const os::MutexLock guard(lock_);
  if (committed_) {
    return S_OK;
  }
  if (decommitInProgress_) {
    // Samples of the last run are still outside: the pool continues with its present samples.
    decommitInProgress_ = false;
    committed_ = true;
    return S_OK;
  }
  const HRESULT hr = AtComBoundary([&] {
    lock_.AssertHeld();
    return Alloc();
  });
  if (FAILED(hr)) {
    // Frees what was made before the failure.
    Free();
    return hr;
  }
  committed_ = true;
  return S_OK;
}

HRESULT CBaseAllocator::Decommit() {
  {
    const os::MutexLock guard(lock_);
    if (!committed_) {
      return S_OK;
    }
    committed_ = false;
    if (outside_ > 0) {
      decommitInProgress_ = true;
    } else {
      Free();
    }
  }
  freed_.NotifyAll();
  return S_OK;
}

HRESULT CBaseAllocator::GetBuffer(IMediaSample** sample, REFERENCE_TIME* /*start*/,
                                  REFERENCE_TIME* /*stop*/, DWORD flags) {
  if (sample == nullptr) {
    return E_POINTER;
  }
  *sample = nullptr;
  const os::MutexLock guard(lock_);
  while (true) {
    if (!committed_) {
      return VFW_E_NOT_COMMITTED;
    }
    if (free_ != nullptr) {
      break;
    }
    if ((flags & AM_GBF_NOWAIT) != 0) {
      return VFW_E_TIMEOUT;
    }
    freed_.Wait(lock_);
  }
  CMediaSample* const taken = free_;
  free_ = taken->m_pNext;
  taken->m_pNext = nullptr;
  ++outside_;
  taken->m_cRef.store(1);
  // A sample outside keeps its allocator alive.
  AddRef();
  *sample = taken;
  return S_OK;
}

HRESULT CBaseAllocator::ReleaseBuffer(IMediaSample* sample) {
  if (sample == nullptr) {
    return E_POINTER;
  }
  {
    const os::MutexLock guard(lock_);
    AddFree(static_cast<CMediaSample*>(sample));
    --outside_;
    if (decommitInProgress_ && outside_ == 0) {
      decommitInProgress_ = false;
      Free();
    }
  }
  freed_.NotifyOne();
  Release();
  return S_OK;
}

LONG CBaseAllocator::GetFreeCount() {
  const os::MutexLock guard(lock_);
  LONG count = 0;
  for (const CMediaSample* sample = free_; sample != nullptr; sample = sample->m_pNext) {
    ++count;
  }
  return count;
}

HRESULT CBaseAllocator::Alloc() {
  return m_properties.cBuffers <= 0 || m_properties.cbBuffer <= 0 || m_properties.cbAlign <= 0
             ? VFW_E_SIZENOTSET
             : S_OK;
}

void CBaseAllocator::AddFree(CMediaSample* sample) {
  sample->m_pNext = free_;
  free_ = sample;
}

CMemAllocator::CMemAllocator(const char* name, IUnknown* outer, HRESULT* hr)
    : CBaseAllocator(name, outer, hr) {}

CMemAllocator::~CMemAllocator() = default;

ComPtr<IMemAllocator> CMemAllocator::Create() {
  HRESULT hr = S_OK;
  auto allocator = std::make_unique<CMemAllocator>("memory allocator", nullptr, &hr);
  return ComPtr<IMemAllocator>(allocator.release());
}

void CMemAllocator::BlockDeleter::operator()(BYTE* block) const {
  std::free(block);
}

HRESULT CMemAllocator::Alloc() {
  const HRESULT hr = CBaseAllocator::Alloc();
  if (FAILED(hr)) {
    return hr;
  }
  // Buffer and prefix together are a multiple of the alignment, so every data pointer keeps it when
  // the first one does.
  const std::size_t align =
      std::max<std::size_t>(static_cast<std::size_t>(m_properties.cbAlign), 64);
  const std::size_t prefix = static_cast<std::size_t>(m_properties.cbPrefix);
  const std::size_t lead = (prefix + align - 1) / align * align;
  const std::size_t step = static_cast<std::size_t>(m_properties.cbBuffer) + prefix;
  const std::size_t whole = lead + step * static_cast<std::size_t>(m_properties.cBuffers);
  block_.reset(static_cast<BYTE*>(std::aligned_alloc(align, (whole + align - 1) / align * align)));
  if (block_ == nullptr) {
    return E_OUTOFMEMORY;
  }
  samples_.reserve(static_cast<std::size_t>(m_properties.cBuffers));
  BYTE* data = block_.get() + lead;
  for (LONG i = 0; i < m_properties.cBuffers; ++i, data += step) {
    HRESULT made = S_OK;
    samples_.push_back(
        std::make_unique<CMediaSample>("memory sample", this, &made, data, m_properties.cbBuffer));
  }
  for (auto sample = samples_.rbegin(); sample != samples_.rend(); ++sample) {
    AddFree(sample->get());
  }
  return S_OK;
}

void CMemAllocator::Free() {
  ForgetFree();
  samples_.clear();
  block_.reset();
}
