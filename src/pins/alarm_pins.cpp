#include "pins/alarm_pins.h"

#include <limits>
#include <span>

#include "pins/pin_owner.h"
#include "pins/streams.h"
#include "pins/video_pins.h"
#include "platform/dshow/media.h"
#include "platform/dshow/vfw_errors.h"
#include "util/exceptions.h"

namespace {

// Payload of a sample, at least `minimum` bytes long and no longer than its buffer.
std::span<const BYTE> Payload(IMediaSample* sample, LONG minimum) {
  BYTE* bytes = nullptr;
  ThrowIfFailed(sample->GetPointer(&bytes));
  const LONG length = sample->GetActualDataLength();
  if (length < minimum || length > sample->GetSize()) {
    throw kInvalidSampleSize;
  }
  ThrowIfFailed(bytes != nullptr || length == 0 ? S_OK : E_POINTER);
  return {bytes, static_cast<std::size_t>(length)};
}

std::int32_t BigEndian32(const BYTE* bytes) {
  return static_cast<std::int32_t>(std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                                   std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]});
}

}  // namespace

void ParseRecord(IMediaSample* sample, UTF8TextSampleType* text) {
  const std::span<const BYTE> bytes = Payload(sample, 0);
  text->assign(bytes.begin(), bytes.end());
}

void ParseRecord(IMediaSample* sample, AudioAlarm* record) {
  const std::span<const BYTE> bytes = Payload(sample, AudioAlarm::kWireBytes);
  record->alarmEnabled = bytes[0];
  record->alarmCondition1 = bytes[1];
  record->alarmCondition2 = bytes[2];
  record->metersEnabled = bytes[3];
  record->channelCount = static_cast<std::int8_t>(bytes[4]);
  const BYTE* value = &bytes[5];
  for (auto* const values : {&record->levels, &record->peaks}) {
    for (std::int32_t& entry : *values) {
      entry = BigEndian32(value);
      value += 4;
    }
  }
}

void ParseRecord(IMediaSample* sample, VideoAlarm* record) {
  const std::span<const BYTE> bytes = Payload(sample, VideoAlarm::kWireBytes);
  record->alarm = bytes[0];
  record->extra = bytes[1];
}

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
    // An exception of this type must not cross the COM boundary to the sender.
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
  // A push in between can only add a record or start again with one: the list does not become
  // empty.
  REFERENCE_TIME found = 0;
  records.getNearest(time, **record, found);
  records.removeBefore(time);
}

template class CComposeAlarmInputPin<UTF8TextSampleType>;
template class CComposeAlarmInputPin<AudioAlarm>;
template class CComposeAlarmInputPin<VideoAlarm>;
