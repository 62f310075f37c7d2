#include "pins/alarm_input_pin.h"

#include <limits>

#include "filter/compose.h"
#include "platform/dshow/reference_time.h"
#include "platform/dshow/vfw_errors.h"

namespace {

// What tells the three side streams apart. The major types are private to the product.
template <typename T>
struct SideStream;

template <>
struct SideStream<UTF8TextSampleType> {
  static constexpr const char* objectName = "UTF8 Text";
  static constexpr LPCWSTR pinName = u"UTF8 Text";
  static constexpr GUID majorType{
      0x67CA2076, 0x1596, 0x47C6, {0xA9, 0x6A, 0x85, 0xD7, 0x92, 0xAC, 0xAA, 0x53}};
};

template <>
struct SideStream<AudioAlarm> {
  static constexpr const char* objectName = "Audio Alarm";
  static constexpr LPCWSTR pinName = u"Audio Alarm";
  static constexpr GUID majorType{
      0x053A2D3B, 0x77A2, 0x4DF3, {0xB4, 0x6F, 0x40, 0x21, 0x71, 0xA8, 0x1F, 0x59}};
};

template <>
struct SideStream<VideoAlarm> {
  static constexpr const char* objectName = "Video Alarm";
  static constexpr LPCWSTR pinName = u"Video Alarm";
  static constexpr GUID majorType{
      0xAE3CE0F0, 0x0DCD, 0x4223, {0x88, 0xBA, 0x8E, 0x28, 0x63, 0xE6, 0x5A, 0x18}};
};

}  // namespace

template <typename T>
CComposeAlarmInputPin<T>::CComposeAlarmInputPin(CCompose* composer,
                                                CComposeInputVideoWindowPin* window, CCritSec* lock,
                                                HRESULT* hr)
    : CInputPinWithDynamicMediaType(SideStream<T>::objectName, composer, lock, hr,
                                    SideStream<T>::pinName),
      filter(composer),
      videoPin(window) {
  records.setCapacity(std::numeric_limits<std::int32_t>::max());
}

template <typename T>
CComposeAlarmInputPin<T>::~CComposeAlarmInputPin() = default;

template <typename T>
HRESULT CComposeAlarmInputPin<T>::CheckMediaType(const CMediaType* type) {
  const bool accepted =
      type->majortype == SideStream<T>::majorType && type->subtype == MEDIASUBTYPE_None;
  return accepted ? S_OK : VFW_E_TYPE_NOT_ACCEPTED;
}

template <typename T>
HRESULT CComposeAlarmInputPin<T>::GetMediaType(int position, CMediaType* type) {
  if (position != 0) {
    return VFW_S_NO_MORE_ITEMS;
  }
  type->majortype = SideStream<T>::majorType;
  type->subtype = MEDIASUBTYPE_None;
  return S_OK;
}

template <typename T>
HRESULT CComposeAlarmInputPin<T>::OnReceive(IMediaSample* sample) {
  T record{};
  try {
    ParseRecord(sample, &record);
  } catch (const char* /*tooShort*/) {
    // No exception of its kind passes the face towards the sender.
    return E_FAIL;
  }
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  const HRESULT timed = sample->GetTime(&start, &stop);
  if (FAILED(timed)) {
    return timed;
  }
  records.push(AddTimes(AddTimes(start, videoPin->TimeOffset()), videoPin->Latency()),
               std::move(record));
  return S_OK;
}

template <typename T>
void CComposeAlarmInputPin<T>::getNearest(REFERENCE_TIME time, std::optional<T>* record) {
  if (records.count() == 0) {
    record->reset();
    return;
  }
  if (!record->has_value()) {
    record->emplace();
  }
  // A push in between can only add a record or start anew with one: the list stays filled.
  REFERENCE_TIME found = 0;
  records.getNearest(time, **record, found);
  records.removeBefore(time);
}

template class CComposeAlarmInputPin<UTF8TextSampleType>;
template class CComposeAlarmInputPin<AudioAlarm>;
template class CComposeAlarmInputPin<VideoAlarm>;
