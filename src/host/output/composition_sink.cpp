#include "host/output/composition_sink.h"

#include <memory>

namespace host {
namespace {

constexpr CLSID kCompositionSinkClass{
    0x3B1E0A55, 0x0E2C, 0x4B57, {0x8D, 0x2F, 0x1C, 0x6A, 0x5E, 0x21, 0x90, 0x03}};

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
  // A preroll frame is there for the filters on its way, not for being shown.
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

}  // namespace host
