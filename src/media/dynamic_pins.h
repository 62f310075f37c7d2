// The pin bases whose format may change while the graph runs.
#pragma once

#include "platform/baseclasses/base_pin.h"

// Base of every input pin of the composer. It takes a new connection or a reconnection at any time,
// hands the connection's media type to the first sample after it, applies a type that a sample
// brings before the sample is processed, and turns exceptions of the processing into result codes.
//
// ReceiveConnection runs on the application's thread under the pin's lock; Receive on the upstream
// filter's streaming thread without it. Where both change the media type, each change holds the
// type lock, so that a connection that is made while a sample is received is never lost. It is
// taken after the pin's lock. The streaming state is not checked: a derived OnReceive that wants
// the base checks calls CBaseInputPin::Receive itself.
class CInputPinWithDynamicMediaType : public CBaseInputPin {
 public:
  CInputPinWithDynamicMediaType(const char* objectName, CBaseFilter* filter, CCritSec* lock,
                                HRESULT* hr, LPCWSTR name);

  // Called instead of CompleteConnect when the pin that is already connected connects again.
  virtual HRESULT OnReconnect(IPin* pin);
  // Processes one sample. May throw: the result is the code of a COMException, E_FAIL for anything
  // else.
  virtual HRESULT OnReceive(IMediaSample* sample) = 0;

  HRESULT ReceiveConnection(IPin* connector, const AM_MEDIA_TYPE* type) override;
  HRESULT Receive(IMediaSample* sample) override;
  // E_FAIL when the allocator offers less than this pin's own requirements.
  HRESULT NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) override;

 private:
  HRESULT ReceiveTyped(IMediaSample* sample);
  HRESULT FollowSample(const CMediaType& type);
  HRESULT TakePendingType(CMediaType* type);

  CCritSec typeLock;  // recursive: a derived SetMediaType may lead back here
  // The next sample that brings no type of its own gets the connection's. Changed under typeLock.
  std::atomic<bool> typePending{true};
};

// Base for output pins of the product's filters (the composer's own do not need it). Deliver and
// ChangeMediaType belong to the filter's streaming thread.
class COutputPinWithDynamicMediaType : public CBaseOutputPin {
 public:
  COutputPinWithDynamicMediaType(const char* objectName, CBaseFilter* filter, CCritSec* lock,
                                 HRESULT* hr, LPCWSTR name);
  ~COutputPinWithDynamicMediaType() override;

  // Marks the first sample after a connection or a change with the connection's type.
  HRESULT Deliver(IMediaSample* sample) override;

  // Moves the connection to another type. Without reconnect the peer is asked to accept it on the
  // fly, and the next sample carries it; with reconnect the connection and its allocator are made
  // again. Not connected, or already of that type: S_OK and nothing happens.
  HRESULT ChangeMediaType(const CMediaType& type, bool reconnect);

 private:
  HRESULT WrapWithType(IMediaSample* sample, ComPtr<IMediaSample>* wrapper);
  HRESULT AskPeer(IPin* peer, const CMediaType& type);
  HRESULT ReconnectWith(IPin* peer, const CMediaType& type);

  std::atomic<bool> typePending{true};
};
