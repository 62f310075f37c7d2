// CompositionSink: the sink filter on the composer's output.
#pragma once

#include <functional>

#include "host/units.h"
#include "platform/baseclasses/base_filter.h"
#include "platform/baseclasses/io_pins.h"

namespace host {

// Hands every composed frame on by reference. Delivery holds the composer's lock: whoever takes
// the frame returns at once and leaves the pixels as they are.
class CompositionSink final : public CBaseFilter {
 public:
  // Called on the composition thread while the graph is active; start on the wall's clock.
  using TakeFrame = std::function<void(const ComPtr<IMediaSample>& frame, Time start)>;

  static ComPtr<CompositionSink> Create(TakeFrame takeFrame);
  explicit CompositionSink(TakeFrame takeFrame);
  ~CompositionSink() override;

  int GetPinCount() override { return 1; }
  CBasePin* GetPin(int position) override { return position == 0 ? &pin_ : nullptr; }
  IPin* pin() { return &pin_; }

 private:
  class Pin final : public CBaseInputPin {
   public:
    Pin(CompositionSink* sink, CCritSec* lock);
    HRESULT CheckMediaType(const CMediaType* type) override;
    HRESULT Receive(IMediaSample* sample) override;
    HRESULT ReceiveCanBlock() override { return S_FALSE; }

   private:
    CompositionSink& sink_;
  };

  CCritSec lock_;
  Pin pin_;
  const TakeFrame takeFrame_;
};

}  // namespace host
