#include "host/feed/alarm_record.h"

#include <algorithm>

namespace host {

namespace {

std::uint8_t Flag(bool value) {
  return value ? 1 : 0;
}

std::uint8_t* PutNumbers(const std::array<std::int32_t, kMaxMeterChannels>& numbers,
                         std::uint8_t* to) {
  for (const std::int32_t number : numbers) {
    const auto bits = static_cast<std::uint32_t>(number);
    for (int shift = 24; shift >= 0; shift -= 8) {
      *to++ = static_cast<std::uint8_t>(bits >> shift);
    }
  }
  return to;
}

}  // namespace

std::array<std::uint8_t, kAudioAlarmSize> ToWire(const AudioAlarmRecord& record) {
  std::array<std::uint8_t, kAudioAlarmSize> wire{};
  wire[0] = Flag(record.alarmEnabled);
  wire[1] = Flag(record.condition1);
  wire[2] = Flag(record.condition2);
  wire[3] = Flag(record.metersEnabled);
  wire[4] = static_cast<std::uint8_t>(std::clamp(record.levels.channelCount, 1, kMaxMeterChannels));
  std::uint8_t* const peaks = PutNumbers(record.levels.levels, wire.data() + 5);
  PutNumbers(record.levels.peaks, peaks);
  return wire;
}

std::array<std::uint8_t, kVideoAlarmSize> ToWire(const VideoAlarmRecord& record) {
  return {Flag(record.alarm), record.extra};
}

}  // namespace host
