#include "pins/alarm_input_pin.h"

#include <limits>

#include "pins/pin_owner.h"
#include "pins/streams.h"
#include "pins/video_input_pins.h"
#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"

namespace {

// How the three side streams differ.
template <typename T>
struct SideStream;

template <>
struct SideStream<UTF8TextSampleType> {
  static constexpr const char* objectName = "UTF8 Text";
  static constexpr LPCWSTR pinName = u"UTF8 Text";
  static constexpr GUID majorType = MEDIATYPE_LabelText;
};

template <>
struct SideStream<AudioAlarm> {
  static constexpr const char* objectName = "Audio Alarm";
  static constexpr LPCWSTR pinName = u"Audio Alarm";
  static constexpr GUID majorType = MEDIATYPE_AudioAlarm;
};

template <>
struct SideStream<VideoAlarm> {
  static constexpr const char* objectName = "Video Alarm";
  static constexpr LPCWSTR pinName = u"Video Alarm";
  static constexpr GUID majorType = MEDIATYPE_VideoAlarm;
};

}  // namespace

template <typename T>
CComposeAlarmInputPin<T>::CComposeAlarmInputPin(PinOwner* composer,
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
    // No exception of its kind passes the COM boundary towards the sender.
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
  // A push in between can only add a record or start again with one: the list stays filled.
  REFERENCE_TIME found = 0;
  records.getNearest(time, **record, found);
  records.removeBefore(time);
}

template class CComposeAlarmInputPin<UTF8TextSampleType>;
template class CComposeAlarmInputPin<AudioAlarm>;
template class CComposeAlarmInputPin<VideoAlarm>;
