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

// What the monitor finds, reported, without what operators have acknowledged or masked, and in the
// words of the window's caption. Owned and called by one channel on its streaming thread.
class ChannelAlarms {
 public:
  // channel and observer outlive it.
  ChannelAlarms(const config::Channel& channel, ChannelObserver* observer);

  // Another run of the channel: nothing is known of its audio.
  void Begin() { audio_ = {}; }
  // What operators changed.
  void SetControls(const ChannelControls& controls, Time now);
  const ChannelControls& controls() const { return controls_; }
  // Takes what becomes of the source. What it finds of the audio is reported by ReportAudio.
  AlarmMonitor& monitor() { return monitor_; }
  // Why there is no audio.
  void SetAudioReason(std::string reason) { audioReason_ = std::move(reason); }
  // When the status of the audio is another one than before.
  void ReportAudio(Time now);

  // Is raised, and neither masked nor acknowledged.
  bool isUrgent(AlarmKind kind) const;
  bool hasPictureAlarm() const {
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

// Adds a part to the words of a caption; an empty one adds nothing.
void AddToCaption(std::string& caption, const std::string& part);

}  // namespace host
