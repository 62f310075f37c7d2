#include "host/output/sinks.h"

#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/packet.h>
}

#include "host/feed/audio_format.h"
#include "host/ffmpeg/time_unit.h"
#include "platform/com/com.h"

namespace host {
namespace {

constexpr CLSID kCompositionSinkClass{
    0x3B1E0A55, 0x0E2C, 0x4B57, {0x8D, 0x2F, 0x1C, 0x6A, 0x5E, 0x21, 0x90, 0x03}};

constexpr CLSID kAudioSinkClass{
    0x3B1E0A55, 0x0E2C, 0x4B57, {0x8D, 0x2F, 0x1C, 0x6A, 0x5E, 0x21, 0x90, 0x04}};

}  // namespace

CompositionSink::Pin::Pin(CompositionSink* sink, CCritSec* lock)
    : CBaseInputPin("composition sink pin", sink, lock, nullptr, u"Input"), sink_(*sink) {}

HRESULT CompositionSink::Pin::CheckMediaType(const CMediaType* type) {
  return type->majortype == MEDIATYPE_Video && type->subtype == MEDIASUBTYPE_YV12 &&
                 type->formattype == FORMAT_VideoInfo2
             ? S_OK
             : S_FALSE;
}

HRESULT CompositionSink::Pin::Receive(IMediaSample* sample) {
  const HRESULT hr = CBaseInputPin::Receive(sample);
  if (hr != S_OK) {
    return hr;
  }
  // A preroll frame is for the filters before this one and is not shown.
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  if (sample->IsPreroll() != S_OK && SUCCEEDED(sample->GetTime(&start, &stop))) {
    sink_.takeFrame_(ComPtr<IMediaSample>(sample), start);
  }
  return S_OK;
}

ComPtr<CompositionSink> CompositionSink::Create(TakeFrame takeFrame) {
  return ComPtr<CompositionSink>(std::make_unique<CompositionSink>(std::move(takeFrame)).release());
}

CompositionSink::CompositionSink(TakeFrame takeFrame)
    : CBaseFilter("composition sink", nullptr, &lock_, kCompositionSinkClass),
      pin_(this, &lock_),
      takeFrame_(std::move(takeFrame)) {}

CompositionSink::~CompositionSink() = default;

class AudioSink::Pin final : public CBaseInputPin {
 public:
  Pin(AudioSink* sink, std::size_t channel)
      : CBaseInputPin("audio sink pin", sink, &sink->lock_, nullptr,
                      WidenAscii("Audio" + std::to_string(channel)).c_str()),
        sink_(*sink),
        channel_(channel) {
    SetReconnectWhenActive(true);
  }

  HRESULT CheckMediaType(const CMediaType* type) override {
    return IsAudioType(*type) ? S_OK : S_FALSE;
  }
  HRESULT ReceiveCanBlock() override { return S_FALSE; }

  HRESULT Receive(IMediaSample* sample) override {
    const HRESULT hr = CBaseInputPin::Receive(sample);
    if (hr != S_OK) {
      return hr;
    }
    REFERENCE_TIME start = 0;
    REFERENCE_TIME stop = 0;
    BYTE* bytes = nullptr;
    const LONG length = sample->GetActualDataLength();
    if (FAILED(sample->GetTime(&start, &stop)) || FAILED(sample->GetPointer(&bytes)) ||
        length <= 0) {
      return S_OK;
    }
    ffmpeg::Packet packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), length) < 0) {
      return E_OUTOFMEMORY;
    }
    std::memcpy(packet->data, bytes, static_cast<std::size_t>(length));
    packet->pts = packet->dts = start;
    packet->duration = stop - start;
    packet->time_base = ffmpeg::kTimeUnit;
    packet->flags |= AV_PKT_FLAG_KEY;
    // The host sends the channel's own time as media time, which the composer does not change.
    LONGLONG own = start;
    LONGLONG ownStop = stop;
    sample->GetMediaTime(&own, &ownStop);
    sink_.takePacket_(channel_, std::move(packet), start - own);
    return S_OK;
  }

 private:
  AudioSink& sink_;
  const std::size_t channel_;
};

ComPtr<AudioSink> AudioSink::Create(std::size_t channels, TakePacket takePacket) {
  return ComPtr<AudioSink>(std::make_unique<AudioSink>(channels, std::move(takePacket)).release());
}

AudioSink::AudioSink(std::size_t channels, TakePacket takePacket)
    : CBaseFilter("audio sink", nullptr, &lock_, kAudioSinkClass),
      takePacket_(std::move(takePacket)) {
  for (std::size_t i = 0; i < channels; ++i) {
    pins_.push_back(std::make_unique<Pin>(this, i));
  }
}

AudioSink::~AudioSink() = default;

CBasePin* AudioSink::GetPin(int position) {
  const auto index = static_cast<std::size_t>(position);
  return position >= 0 && index < pins_.size() ? pins_[index].get() : nullptr;
}

CBaseInputPin* AudioSink::pin(std::size_t channel) {
  return pins_.at(channel).get();
}

}  // namespace host
