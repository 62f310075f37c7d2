// CComposeAlarmInputPin: one of the three side streams of a channel.
#pragma once

#include <optional>

#include "media/dynamic_pins.h"
#include "pins/alarm_records.h"
#include "sync/get_nearest_list.h"

class PinOwner;
class CComposeInputVideoWindowPin;

// Pins "UTF8 Text", "Audio Alarm" and "Video Alarm", for the record type T of each. A sample is
// read into a record, moved onto the composer's clock as the channel's pictures are, and kept by
// time. OnReceive runs on the sender's streaming thread, GetNearest on the composition thread; the
// list's own lock serialises them.
template <typename T>
class CComposeAlarmInputPin final : public CInputPinWithDynamicMediaType {
 public:
  CComposeAlarmInputPin(PinOwner* filter, CComposeInputVideoWindowPin* videoPin, CCritSec* lock,
                        HRESULT* hr);
  ~CComposeAlarmInputPin() override;

  // Refuses with VFW_E_TYPE_NOT_ACCEPTED rather than S_FALSE.
  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetMediaType(int position, CMediaType* type) override;
  // Refuses samples without a time, and (with E_FAIL, nothing stored) samples shorter than a
  // record.
  HRESULT OnReceive(IMediaSample* sample) override;

  // The record nearest to time (composer time), the earlier one on a tie; none when nothing is
  // stored. Everything older than time is dropped afterwards.
  void getNearest(REFERENCE_TIME time, std::optional<T>* record);

 private:
  PinOwner* const filter;
  CComposeInputVideoWindowPin* const videoPin;
  GetNearestList<T, DefaultReleaser<T>, DefaultPropagator<T>> records;
};

extern template class CComposeAlarmInputPin<UTF8TextSampleType>;
extern template class CComposeAlarmInputPin<AudioAlarm>;
extern template class CComposeAlarmInputPin<VideoAlarm>;
