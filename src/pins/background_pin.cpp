#include "pins/background_pin.h"

#include "filter/compose.h"
#include "platform/dshow/reference_time.h"
#include "platform/dshow/vfw_errors.h"

CComposeInputVideoBackgroundPin::CComposeInputVideoBackgroundPin(CCompose* composer, CCritSec* lock,
                                                                 HRESULT* hr, LPCWSTR name)
    : CComposeInputVideoPin(composer, lock, hr, name, 0) {}

CComposeInputVideoBackgroundPin::~CComposeInputVideoBackgroundPin() = default;

HRESULT CComposeInputVideoBackgroundPin::CheckVideoFormat(const CMediaType& type, LONG* width,
                                                          LONG* height) {
  return ReadVideoFormat(type, width, height);
}

HRESULT CComposeInputVideoBackgroundPin::OnReceive(IMediaSample* sample) {
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  const HRESULT timed = sample->GetTime(&start, &stop);
  if (timed == VFW_E_SAMPLE_TIME_NOT_SET) {
    start = AddTimes(filter->lastBackgroundStart, frameDuration);
    stop = AddTimes(start, frameDuration);
    const HRESULT stamped = sample->SetTime(&start, &stop);
    if (FAILED(stamped)) {
      filter->logger.load()->log(qorp::log::kError,
                                 "Composer background input could not be timestamped");
      return stamped;
    }
  } else if (FAILED(timed)) {
    filter->logger.load()->log(qorp::log::kError,
                               "Composer background input pin received an incorrect media sample");
    return timed;
  }
  filter->lastBackgroundStart = start;
  filter->QueueBackgroundFrame(ComPtr<IMediaSample>(sample));
  return S_OK;
}
