// ChannelAlarms: the alarms and the audio status of one channel as operators get them.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_observer.h"
#include "host/channel/channel_settings.h"
#include "host/config/wall.h"
#include "host/units.h"

namespace host {

// Reports what the monitor finds, notes what operators have acknowledged or masked, and words the
// caption of the window. Owned and called by one channel on its streaming thread.
class ChannelAlarms {
 public:
  // channel and observer outlive it.
  ChannelAlarms(const config::Channel& channel, ChannelObserver* observer);

  // The channel starts again: nothing is known of its audio.
  void Begin() { audio_ = {}; }
  // What operators changed.
  void SetControls(const ChannelControls& controls, Time now);
  const ChannelControls& controls() const { return controls_; }
  // The caller feeds it; the audio status that it finds is reported by ReportAudio.
  AlarmMonitor& monitor() { return monitor_; }
  // Why there is no audio.
  void SetAudioReason(std::string reason) { audioReason_ = std::move(reason); }
  // Reports the audio status if it has changed.
  void ReportAudio(Time now);

  // Is raised, and neither masked nor acknowledged.
  bool isUrgent(AlarmKind kind) const;
  bool hasVideoAlarm() const {
    return isUrgent(AlarmKind::kLoss) || isUrgent(AlarmKind::kBlack) ||
           isUrgent(AlarmKind::kFreeze);
  }
  // timeText: see ChannelSettings. Empty when there is nothing to say.
  std::string Caption(const std::function<std::string(Time)>& timeText) const;

 private:
  bool isMasked() const;
  std::string AudioCaption(const std::function<std::string(Time)>& timeText) const;

  const std::string& name_;  // of the channel
  ChannelObserver* const observer_;
  ChannelControls controls_;
  std::array<bool, kAlarmKinds> acknowledged_{};  // while the alarm is raised
  AlarmMonitor monitor_;
  std::string audioReason_;
  AudioStatus audio_;
};

// Adds a part to a caption; an empty one adds nothing.
void AddToCaption(std::string& caption, const std::string& part);

}  // namespace host
