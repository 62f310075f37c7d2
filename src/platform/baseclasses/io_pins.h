// CBaseInputPin and CBaseOutputPin: the two ends of a connection over which samples pass in memory.
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

// Base of every output pin. Connection, Active and Inactive run on the application's thread under
// m_pLock; GetDeliveryBuffer, Deliver and their kin on the filter's streaming thread. The peer's
// transport and the allocator have a lock of their own, held only to copy or exchange a reference,
// so that a pin may be unplugged while its streaming thread is delivering.
class CBaseOutputPin : public CBasePin {
 public:
  CBaseOutputPin(const char* objectName, CBaseFilter* filter, CCritSec* lock, HRESULT* hr,
                 LPCWSTR name);
  ~CBaseOutputPin() override;

  // Commits the allocator; VFW_E_NO_ALLOCATOR without one.
  HRESULT Active() override;
  // Decommits it, which ends a wait in GetDeliveryBuffer.
  HRESULT Inactive() override;
  HRESULT CheckConnect(IPin* pin) override;
  HRESULT BreakConnect() override;
  HRESULT CompleteConnect(IPin* pin) override;

  // Agrees on an allocator with the peer: the peer's own first, then one of this pin. On success
  // *allocator holds a reference.
  virtual HRESULT DecideAllocator(IMemInputPin* pin, IMemAllocator** allocator);
  // Sets the properties that this pin needs; *request holds what the peer asks for.
  virtual HRESULT DecideBufferSize(IMemAllocator* allocator, ALLOCATOR_PROPERTIES* request) = 0;
  // VFW_E_NOT_CONNECTED without an allocator; otherwise what the allocator's GetBuffer gives.
  virtual HRESULT GetDeliveryBuffer(IMediaSample** sample, REFERENCE_TIME* start,
                                    REFERENCE_TIME* stop, DWORD flags);
  // What the peer's Receive answers; VFW_E_NOT_CONNECTED without a peer.
  virtual HRESULT Deliver(IMediaSample* sample);
  virtual HRESULT InitAllocator(IMemAllocator** allocator);
  virtual HRESULT DeliverEndOfStream();
  virtual HRESULT DeliverBeginFlush();
  virtual HRESULT DeliverEndFlush();
  virtual HRESULT DeliverNewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate);

  // Calls of an input pin, which an output pin refuses.
  HRESULT BeginFlush() override { return E_UNEXPECTED; }
  HRESULT EndFlush() override { return E_UNEXPECTED; }
  HRESULT EndOfStream() override { return E_UNEXPECTED; }

  // What the connection holds, or none; safe on any thread.
  ComPtr<IMemAllocator> HeldAllocator();
  ComPtr<IMemInputPin> HeldInputPin();

 protected:
  void ReplaceAllocator(ComPtr<IMemAllocator> allocator);
  // Releases peer transport and allocator; for destructors.
  void ReleasePeer();

 private:
  ComPtr<IPin> HeldPeer();

  os::Mutex peerLock_;
  ComPtr<IMemInputPin> m_pInputPin GUARDED_BY(peerLock_);
  ComPtr<IMemAllocator> m_pAllocator GUARDED_BY(peerLock_);
};
