// The records that tell the composer about a channel's audio and alarms.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace host {

inline constexpr int kMaxMeterChannels = 10;

// Levels and peaks of up to ten audio channels, in thousandths of full scale.
struct AudioLevels {
  int channelCount = 1;
  std::array<std::int32_t, kMaxMeterChannels> levels{};
  std::array<std::int32_t, kMaxMeterChannels> peaks{};

  bool operator==(const AudioLevels&) const = default;
};

// The composer raises the alarm when it is enabled and either condition holds. The default is what
// a channel without audio sends: one silent audio channel with its meter on, because the composer
// draws alarms only where there is a meter.
struct AudioAlarmRecord {
  bool alarmEnabled = false;
  bool condition1 = false;  // the channel is silent
  bool condition2 = false;  // the channel clips
  bool metersEnabled = true;
  AudioLevels levels;
};

struct VideoAlarmRecord {
  bool alarm = false;
  std::uint8_t extra = 0;  // passed on, not drawn
};

// On the wire, numbers most significant byte first:
//
//   offset  size
//        0     1  alarm enabled (0 or 1)
//        1     1  condition 1
//        2     1  condition 2
//        3     1  meters enabled
//        4     1  channel count, clamped to 1 to 10
//        5    40  ten levels, 4 bytes each
//       45    40  ten peaks, 4 bytes each
inline constexpr std::size_t kAudioAlarmSize = 85;
std::array<std::uint8_t, kAudioAlarmSize> ToWire(const AudioAlarmRecord& record);

//   offset  size
//        0     1  alarm (0 or 1)
//        1     1  extra
inline constexpr std::size_t kVideoAlarmSize = 2;
std::array<std::uint8_t, kVideoAlarmSize> ToWire(const VideoAlarmRecord& record);

}  // namespace host
