// CBasePin: connection, media type and quality control of a pin. CBaseInputPin and CBaseOutputPin:
// the two ends of a connection over which samples pass in memory.
#pragma once

#include <atomic>
#include <string>

#include "platform/baseclasses/base_filter.h"
#include "platform/baseclasses/media_sample.h"
#include "platform/baseclasses/mtype.h"
#include "platform/dshow/filters.h"
#include "platform/os/mutex.h"

// Base of every pin. A pin has the lifetime of the filter that owns it: its references are counted
// by the filter. Connection methods run on the application's thread under m_pLock (the filter's
// lock); what streaming threads read is atomic or has a small lock of its own.
class CBasePin : public CUnknown, public IPin, public IQualityControl {
 public:
  DECLARE_IUNKNOWN

  // filter owns the pin; lock is the filter's. name is the pin's name and identifier.
  CBasePin(const char* objectName, CBaseFilter* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name,
           PIN_DIRECTION direction);

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;
  // References are counted by the owning filter.
  ULONG NonDelegatingAddRef() override;
  ULONG NonDelegatingRelease() override;
  ~CBasePin() override;

  // Grows whenever the list of preferred media types changes.
  virtual LONG GetMediaTypeVersion() { return m_TypeVersion.load(); }
  // The filter leaves the stopped state; called under m_pLock for connected pins.
  virtual HRESULT Active() { return S_OK; }
  // The filter stops; called under m_pLock for connected pins.
  virtual HRESULT Inactive();
  virtual HRESULT Run(REFERENCE_TIME start);
  // S_OK accepts the type; S_FALSE or an error refuses it.
  virtual HRESULT CheckMediaType(const CMediaType* type) = 0;
  virtual HRESULT SetMediaType(const CMediaType* type);
  // May the pins be connected at all? The base refuses two pins of one direction.
  virtual HRESULT CheckConnect(IPin* pin);
  // Undoes what CheckConnect and CompleteConnect have set up.
  virtual HRESULT BreakConnect() { return S_OK; }
  virtual HRESULT CompleteConnect(IPin* pin);
  // The preferred type at a position (from 0); VFW_S_NO_MORE_ITEMS past the last one.
  virtual HRESULT GetMediaType(int position, CMediaType* type);

  HRESULT Connect(IPin* receivePin, const AM_MEDIA_TYPE* type) override;
  HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override;
  HRESULT Disconnect() override;
  HRESULT ConnectedTo(IPin** pin) override;
  HRESULT ConnectionMediaType(AM_MEDIA_TYPE* type) override;
  HRESULT QueryPinInfo(PIN_INFO* info) override;
  HRESULT QueryDirection(PIN_DIRECTION* direction) override;
  HRESULT QueryId(LPWSTR* id) override;
  HRESULT QueryAccept(const AM_MEDIA_TYPE* type) override;
  HRESULT EnumMediaTypes(IEnumMediaTypes** enumerator) override;
  HRESULT QueryInternalConnections(IPin** pins, ULONG* count) override;
  HRESULT EndOfStream() override;
  HRESULT NewSegment(REFERENCE_TIME start, REFERENCE_TIME stop, double rate) override;

  // The base takes no quality messages: a pin that wants them overrides this.
  HRESULT Notify(IBaseFilter* self, Quality quality) override;
  HRESULT SetSink(IQualityControl* sink) override;

  bool IsConnected() const { return isConnected_.load(); }
  bool IsStopped() const { return m_pFilter->IsStopped(); }
  const std::u16string& Name() const { return m_pName; }
  // With true, the pin may be connected and disconnected while its filter is active.
  void SetReconnectWhenActive(bool allowed) { m_bCanReconnectWhenActive = allowed; }
  void IncrementTypeVersion() { m_TypeVersion.fetch_add(1); }

 protected:
  // Takes the pin as connected peer (one reference), or releases it with null.
  void SetConnected(IPin* pin) REQUIRES(m_pLock);
  // Checks a connector and the type that it proposes: S_OK with a copy of the type, or an error,
  // after which the caller calls BreakConnect.
  HRESULT CheckProposal(IPin* connector, const AM_MEDIA_TYPE& type, CMediaType* proposed)
      REQUIRES(m_pLock);
  // Ends a connection: BreakConnect, release. S_FALSE when there was none.
  HRESULT DisconnectInternal() REQUIRES(m_pLock);

  CBaseFilter* m_pFilter;
  CCritSec* m_pLock;
  ComPtr<IPin> m_Connected GUARDED_BY(m_pLock);
  std::atomic<bool> m_bRunTimeError{false};
  bool m_bTryMyTypesFirst = false;
  // Not counted: a sink that is downstream holds this pin already.
  IQualityControl* m_pQSink GUARDED_BY(m_pLock) = nullptr;

 private:
  HRESULT AgreeMediaType(IPin* receivePin, const CMediaType* wanted) REQUIRES(m_pLock);
  HRESULT TryMediaTypes(IPin* receivePin, const CMediaType* wanted, IEnumMediaTypes* types)
      REQUIRES(m_pLock);
  HRESULT AttemptConnection(IPin* receivePin, const CMediaType& type) REQUIRES(m_pLock);

  const std::u16string m_pName;
  const PIN_DIRECTION m_dir;
  bool m_bCanReconnectWhenActive = false;
  std::atomic<bool> isConnected_{false};
  std::atomic<LONG> m_TypeVersion{1};
  os::Mutex typeLock_;
  CMediaType m_mt GUARDED_BY(typeLock_);  // streaming threads change it with their samples
};

// Base of every input pin. Receive runs on the upstream filter's streaming thread, one call at a
// time; the flush methods run on the application's thread.
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
  // Replaces the allocator by another one (or none) under its lock; returns the former one.
  ComPtr<IMemAllocator> ReplaceAllocator(ComPtr<IMemAllocator> allocator);

 private:
  os::Mutex allocatorLock_;
  ComPtr<IMemAllocator> m_pAllocator GUARDED_BY(allocatorLock_);
  std::atomic<bool> m_bFlushing{false};
};

// Base of every output pin. Connection, Active and Inactive run on the application's thread under
// m_pLock; GetDeliveryBuffer and the Deliver methods on the filter's streaming thread. The peer's
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
  // The result of the peer's Receive; VFW_E_NOT_CONNECTED without a peer.
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

  // The connection's allocator and input pin, or none; safe on any thread.
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
