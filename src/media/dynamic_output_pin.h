// COutputPinWithDynamicMediaType: an output pin that changes its media type on a live connection.
#pragma once

#include "platform/baseclasses/base_output_pin.h"

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
  // anew. Not connected, or already of that type: S_OK and nothing happens.
  HRESULT ChangeMediaType(const CMediaType& type, bool reconnect);

 private:
  HRESULT WrapWithType(IMediaSample* sample, ComPtr<IMediaSample>* wrapper);
  HRESULT AskPeer(IPin* peer, const CMediaType& type);
  HRESULT ReconnectWith(IPin* peer, const CMediaType& type);

  std::atomic<bool> typePending{true};
};
