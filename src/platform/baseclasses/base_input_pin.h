// CBaseInputPin: an input pin that takes samples from memory.
#pragma once

#include "platform/baseclasses/allocator.h"
#include "platform/baseclasses/base_pin.h"
#include "platform/os/mutex.h"

// Base of every input pin. Receive runs on the upstream filter's streaming thread, alone of its
// kind; the flush methods run on the application's thread.
class CBaseInputPin : public CBasePin, public IMemInputPin {
 public:
  DECLARE_IUNKNOWN

  CBaseInputPin(const char* objectName, CBaseFilter* filter, CCritSec* lock, HRESULT* hr,
                LPCWSTR name);
  ~CBaseInputPin() override;

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  HRESULT BreakConnect() override;
  HRESULT Inactive() override;
  // May a sample be taken now? VFW_E_NOT_CONNECTED, VFW_E_WRONG_STATE (stopped), S_FALSE
  // (flushing), VFW_E_RUNTIME_ERROR.
  virtual HRESULT CheckStreaming();

  HRESULT BeginFlush() override;
  HRESULT EndFlush() override;

  HRESULT GetAllocator(IMemAllocator** allocator) override;
  HRESULT NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) override;
  HRESULT GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) override;
  // The checks that every sample passes first: streaming state, and a type change that the pin must
  // accept. A refused type ends the stream with EC_ERRORABORT and VFW_E_INVALIDMEDIATYPE.
  HRESULT Receive(IMediaSample* sample) override;
  HRESULT ReceiveMultiple(IMediaSample** samples, LONG count, LONG* processed) override;
  HRESULT ReceiveCanBlock() override;

  // The allocator agreed on, or none; safe on any thread.
  ComPtr<IMemAllocator> HeldAllocator();

 protected:
  // Takes another allocator (or none), safely against HeldAllocator; returns the former one.
  ComPtr<IMemAllocator> ReplaceAllocator(ComPtr<IMemAllocator> allocator);

 private:
  os::Mutex allocatorLock_;
  ComPtr<IMemAllocator> m_pAllocator GUARDED_BY(allocatorLock_);
  std::atomic<bool> m_bFlushing{false};
};
