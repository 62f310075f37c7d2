// CBaseOutputPin: an output pin that hands samples to an input pin's memory transport.
#pragma once

#include "platform/baseclasses/allocator.h"
#include "platform/baseclasses/base_pin.h"
#include "platform/os/mutex.h"

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

  // An output pin is asked for neither.
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
