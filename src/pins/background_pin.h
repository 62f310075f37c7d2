// CComposeInputVideoBackgroundPin: the wall's clock and canvas.
#pragma once

#include "pins/video_input_pin.h"

// Pin "InputBG". Every sample becomes one composed frame: it is stamped when it comes without a
// time, its start becomes the composer's current time, and it is queued with the filter. Has no
// queue and no lock of its own.
class CComposeInputVideoBackgroundPin final : public CComposeInputVideoPin {
 public:
  CComposeInputVideoBackgroundPin(CCompose* filter, CCritSec* lock, HRESULT* hr, LPCWSTR name);
  ~CComposeInputVideoBackgroundPin() override;

  HRESULT OnReceive(IMediaSample* sample) override;
  HRESULT CheckVideoFormat(const CMediaType& type, LONG* width, LONG* height) override;
};
