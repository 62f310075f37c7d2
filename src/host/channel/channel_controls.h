// ChannelControls: what operators change of a channel while its source goes on.
#pragma once

#include <array>
#include <chrono>
#include <optional>

#include "host/config/wall.h"
#include "host/units.h"

namespace host {

struct ChannelControls {
  enum class Mute { kOff, kSilence, kNothing };

  config::AlarmOptions alarm;
  bool hasMeter = true;
  Time hold = 5 * kSecond;
  config::Decode decode = config::Decode::kAuto;
  Mute mute = Mute::kOff;
  // Until then alarms are neither drawn nor captioned.
  std::optional<std::chrono::system_clock::time_point> maskedUntil{};
  // When an alarm was acknowledged: it is not drawn until it is raised again. By AlarmKind.
  std::array<std::optional<std::chrono::system_clock::time_point>, config::kAlarmKinds>
      acknowledged{};

  static ChannelControls Of(const config::Channel& channel) {
    ChannelControls controls;
    controls.alarm = channel.options.alarm;
    controls.hasMeter = channel.options.audio.meter;
    controls.hold = channel.options.hold;
    controls.decode = channel.options.decode;
    return controls;
  }
  bool operator==(const ChannelControls&) const = default;
};

}  // namespace host
