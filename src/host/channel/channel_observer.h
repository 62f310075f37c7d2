// ChannelObserver: what a channel reports.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_life.h"
#include "host/channel/decode_policy.h"
#include "host/channel/rendition/rendition_reader.h"
#include "host/channel/source/media_info.h"

namespace host {

// When the items of a live source arrive, and how many are lost.
struct SourceTiming {
  Time jitter = 0;  // between the earliest and the latest arrivals of ten seconds
  Time lead = 0;    // of the earliest arrivals before they are due; the composer adds its delay
  // Audio packets that were dropped since the source was opened.
  std::uint64_t audioTooEarly = 0;
  std::uint64_t audioTooLate = 0;
  // What could not be converted, since the source was opened.
  std::uint64_t framesLost = 0;
  std::uint64_t audioLost = 0;   // frames of audio
  std::uint64_t overflowed = 0;  // items that found the queue full, since the wall started
  // Since the wall started.
  std::uint64_t timestampJumps = 0;  // of the video; without video, of the audio
  SourceCounts counts;
};

// Called by the two threads of every channel, at any time; must not block.
class ChannelObserver {
 public:
  virtual ~ChannelObserver() = default;

  // About the source; called by the reader's thread.
  virtual void ChannelOpened(const std::string& channel, const MediaInfo& info) = 0;
  virtual void ChannelEnded(const std::string& channel) = 0;
  // reason: one sentence; retryIn: until the source is opened again, none when it is not.
  virtual void ChannelFailed(const std::string& channel, const std::string& reason,
                             std::optional<std::chrono::milliseconds> retryIn) = 0;
  // About once a second while the source is read.
  virtual void ChannelTimed(const std::string& channel, const SourceTiming& timing) {
    (void)channel, (void)timing;
  }
  // How much of the video is decoded from now on, and why it is not all of it.
  virtual void DecodingChanged(const std::string& channel, DecodeStep step,
                               const std::string& reason) {
    (void)channel, (void)step, (void)reason;
  }
  // Of a source with several renditions, which one is read from now on.
  virtual void RenditionChanged(const std::string& channel, const RenditionStatus& status) {
    (void)channel, (void)status;
  }
  // How the channel's audio reaches the outputs, as a sentence.
  virtual void AudioPathChanged(const std::string& channel, const std::string& what) {
    (void)channel, (void)what;
  }

  // About what is shown; called by the streaming thread. Times are the wall's.
  virtual void ChannelChanged(const std::string& channel, const ChannelLife::Status& status) {
    (void)channel, (void)status;
  }
  virtual void AudioChanged(const std::string& channel, const AudioStatus& status) {
    (void)channel, (void)status;
  }
  virtual void AlarmChanged(const std::string& channel, const AlarmMonitor::Change& change) {
    (void)channel, (void)change;
  }
};

}  // namespace host
