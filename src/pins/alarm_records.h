// The records of a channel's side streams: label text, audio alarm with levels, video alarm.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/dshow/media.h"

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

// Thrown as const char*: the pin answers it at the COM boundary.
inline constexpr const char* kInvalidSampleSize = "Invalid sample size";
