#include "pins/video_input_pin.h"

#include "filter/compose.h"

namespace {

struct FrameRate {
  LONG numerator;
  LONG denominator;
};

constexpr FrameRate kDefaultFrameRate{25, 1};

// Duration of a frame in 100 ns units, rounded to the nearest.
constexpr REFERENCE_TIME FrameDuration(FrameRate rate) {
  return (REFERENCE_TIME{10000000} * rate.denominator + rate.numerator / 2) / rate.numerator;
}

}  // namespace

CComposeInputVideoPin::CComposeInputVideoPin(CCompose* composer, CCritSec* lock, HRESULT* hr,
                                             LPCWSTR name, ULONG number)
    : CInputPinWithDynamicMediaType(nullptr, composer, lock, hr, name),
      index(number),
      filter(composer),
      frameDuration(FrameDuration(kDefaultFrameRate)) {
  SetReconnectWhenActive(true);
}

CComposeInputVideoPin::~CComposeInputVideoPin() = default;

HRESULT CComposeInputVideoPin::CheckMediaType(const CMediaType* type) {
  const bool accepted =
      type->majortype == MEDIATYPE_Video && type->subtype == MEDIASUBTYPE_YV12 &&
      (type->formattype == FORMAT_VideoInfo2 || type->formattype == FORMAT_VideoInfo);
  return accepted ? S_OK : S_FALSE;
}

HRESULT CComposeInputVideoPin::GetAllocatorRequirements(ALLOCATOR_PROPERTIES* properties) {
  if (properties == nullptr) {
    return E_POINTER;
  }
  *properties = {kRequiredBuffers, 1, kBufferAlign, 0};
  return S_OK;
}

HRESULT CComposeInputVideoPin::NotifyAllocator(IMemAllocator* allocator, BOOL readOnly) {
  // The demands are negotiated here rather than checked by the direct base.
  // NOLINTNEXTLINE(bugprone-parent-virtual-call)
  const HRESULT noted = CBaseInputPin::NotifyAllocator(allocator, readOnly);
  if (allocator == nullptr) {
    return noted;
  }
  ALLOCATOR_PROPERTIES properties{};
  allocator->GetProperties(&properties);
  if (properties.cBuffers >= kRequiredBuffers) {
    return noted;
  }
  properties.cBuffers = kRequiredBuffers;
  ALLOCATOR_PROPERTIES actual{};
  const HRESULT set = allocator->SetProperties(&properties, &actual);
  if (FAILED(set)) {
    return set;
  }
  return actual.cBuffers == kRequiredBuffers ? set : E_FAIL;
}

HRESULT CComposeInputVideoPin::ReadVideoFormat(const CMediaType& type, LONG* width, LONG* height) {
  if (type.subtype != MEDIASUBTYPE_YV12) {
    filter->logger.load()->log(qorp::log::kError, "[Pin #%d] Trying to set a wrong media type",
                               static_cast<int>(index));
    return S_FALSE;
  }
  // A VIDEOINFOHEADER, which the connection accepts, never changes the frame duration or the size.
  const auto* const format = FormatBlock<VIDEOINFOHEADER2>(type);
  if (type.formattype != FORMAT_VideoInfo2 || format == nullptr) {
    return S_FALSE;
  }
  frameDuration = format->AvgTimePerFrame;
  *width = format->bmiHeader.biWidth;
  *height = format->bmiHeader.biHeight;
  return S_OK;
}
