// The sink filters on the composer's outputs.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "host/ffmpeg/handles.h"
#include "host/units.h"
#include "platform/baseclasses/base_filter.h"
#include "platform/baseclasses/base_pin.h"

namespace host {

// Hands every composed frame on by reference. Delivery holds the composer's lock: takeFrame returns
// at once and leaves the pixels as they are.
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

// One pin for each channel. Every packet is copied out of the composer's buffer and handed on, so
// that the composer never lacks a buffer however long an output keeps a packet. Owned by its graph
// and by the wall.
class AudioSink final : public CBaseFilter {
 public:
  // Called on the streaming thread of the channel with the composer's lock held while the graph is
  // active: returns at once. The packet's timestamps are on the wall's clock, in units of 100 ns;
  // packets without timestamps are dropped. offset: what the composer has added to the channel's
  // own time; it changes when the channel has re-synchronised.
  using TakePacket = std::function<void(std::size_t channel, ffmpeg::Packet packet, Time offset)>;

  static ComPtr<AudioSink> Create(std::size_t channels, TakePacket takePacket);
  AudioSink(std::size_t channels, TakePacket takePacket);
  ~AudioSink() override;

  int GetPinCount() override { return static_cast<int>(pins_.size()); }
  CBasePin* GetPin(int position) override;
  CBaseInputPin* pin(std::size_t channel);

 private:
  class Pin;

  CCritSec lock_;
  const TakePacket takePacket_;
  std::vector<std::unique_ptr<Pin>> pins_;
};

}  // namespace host
