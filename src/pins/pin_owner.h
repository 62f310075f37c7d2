// PinOwner: the composer as its pins see it.
#pragma once

#include "log/i_log_perf.h"
#include "platform/baseclasses/base_filter.h"
#include "platform/baseclasses/mtype.h"

class CComposeInputAudioCompressedPin;
class CComposeInputVideoWindowPin;

// What a pin uses of the filter that owns it, which outlives it. Called on the streaming threads,
// the application's thread and the composition thread; takes the filter's lock in
// QueueBackgroundFrame only.
class PinOwner : public CBaseFilter {
 public:
  using CBaseFilter::CBaseFilter;

  virtual qorp::log::ILogPerf* Logger() const = 0;
  // The composer's present time, 100 ns units: the start of the background frame received last.
  virtual REFERENCE_TIME PresentTime() const = 0;
  virtual void SetPresentTime(REFERENCE_TIME time) = 0;
  // Appends a background frame and wakes the composition thread.
  virtual void QueueBackgroundFrame(ComPtr<IMediaSample> sample) = 0;

  // The pins of an input, which are made and live together; null for an index that has none.
  virtual CComposeInputVideoWindowPin* WindowPin(LONG index) const = 0;
  virtual CComposeInputAudioCompressedPin* AudioInputPin(LONG index) const = 0;

  // The type of the composed frames: the background's as YV12 in a VIDEOINFOHEADER2 with the wall's
  // aspect ratio. *type is filled or, when it is null, allocated for the caller. The background
  // pin's error while unconnected; VFW_E_INVALIDMEDIATYPE for a type without a whole format block.
  virtual HRESULT BuildOutputMediaType(CMediaType*& type) = 0;
  // Bytes of a composed frame, as announced to allocators.
  virtual LONG OutputFrameBytes() const = 0;
};
