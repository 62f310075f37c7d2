// ChannelObserver: hears what becomes of a channel.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_life.h"
#include "host/channel/source/media_info.h"

namespace host {

// Called by the two threads of every channel, at any time; returns soon.
class ChannelObserver {
 public:
  virtual ~ChannelObserver() = default;

  // Of the source, by the reader's thread.
  virtual void ChannelOpened(const std::string& channel, const MediaInfo& info) = 0;
  virtual void ChannelEnded(const std::string& channel) = 0;
  // reason: one sentence; retryIn: until the source is opened again, none when it is not.
  virtual void ChannelFailed(const std::string& channel, const std::string& reason,
                             std::optional<std::chrono::milliseconds> retryIn) = 0;
  // What becomes of the channel's sound on its way to the outputs, as a sentence.
  virtual void ChannelSoundChanged(const std::string& channel, const std::string& what) {
    (void)channel, (void)what;
  }

  // Of what is shown, by the streaming thread. Times are the wall's.
  virtual void ChannelChanged(const std::string& channel, const ChannelLife::Status& status) {
    (void)channel, (void)status;
  }
  virtual void AlarmChanged(const std::string& channel, const AlarmMonitor::Change& change) {
    (void)channel, (void)change;
  }
};

}  // namespace host
