// The side streams of a channel: the records of label text, audio alarm with levels and video
// alarm, and CComposeAlarmInputPin, the pin of each.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "media/dynamic_pins.h"
#include "platform/dshow/media.h"
#include "sync/get_nearest_list.h"

// A label's text, UTF-8 as received: no terminator, not validated.
using UTF8TextSampleType = std::vector<std::uint8_t>;

// Levels of a channel's audio and the state of its alarm. On the wire, at least 85 bytes (what
// follows is ignored), multi-byte values most significant byte first:
//
//   offset 0  alarmEnabled      5   levels[0..9], 4 bytes each
//          1  alarmCondition1   45  peaks[0..9], 4 bytes each
//          2  alarmCondition2
//          3  metersEnabled
//          4  channelCount
struct AudioAlarm {
  static constexpr int kMaxChannels = 10;
  static constexpr LONG kWireBytes = 85;

  std::uint8_t alarmEnabled = 0;
  std::uint8_t alarmCondition1 = 0;
  std::uint8_t alarmCondition2 = 0;
  std::uint8_t metersEnabled = 0;
  std::int8_t channelCount = 0;                     // as sent, not checked
  std::array<std::int32_t, kMaxChannels> levels{};  // thousandths of full scale
  std::array<std::int32_t, kMaxChannels> peaks{};   // thousandths of full scale

  // Either condition raises the alarm while it is enabled.
  bool IsRaised() const {
    return alarmEnabled != 0 && (alarmCondition1 != 0 || alarmCondition2 != 0);
  }
};

// The state of a channel's video alarm; on the wire the same two bytes (what follows is ignored).
struct VideoAlarm {
  static constexpr LONG kWireBytes = 2;

  std::uint8_t alarm = 0;
  std::uint8_t extra = 0;
};

// Read a record from a sample's payload. Throw COMException when the payload cannot be reached, and
// kInvalidSampleSize, a plain text, when it is too short for the record or longer than the sample's
// buffer; a label text may be empty.
void ParseRecord(IMediaSample* sample, UTF8TextSampleType* text);
void ParseRecord(IMediaSample* sample, AudioAlarm* record);
void ParseRecord(IMediaSample* sample, VideoAlarm* record);

// Thrown as const char*: the pin turns it into a result code at the COM boundary.
inline constexpr const char* kInvalidSampleSize = "Invalid sample size";

class PinOwner;
class CComposeInputVideoWindowPin;

// Pins "UTF8 Text", "Audio Alarm" and "Video Alarm", for the record type T of each. A sample is
// read into a record, moved onto the composer's clock as the channel's frames are, and kept by
// time. OnReceive runs on the sender's streaming thread, getNearest on the composition thread; the
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
