// AlarmMonitor: the alarms of one channel.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>

#include "host/channel/alarm_timer.h"
#include "host/channel/audio_status.h"
#include "host/channel/source/media_info.h"
#include "host/config/wall.h"
#include "host/units.h"

namespace host {

using config::AlarmKind;
using config::kAlarmKinds;
using config::kAllAlarms;

// What is seen and heard of the channel comes in with its time on the wall's clock; each alarm has
// a time to set and a time to clear; for clipping, peaks are counted. While no frame comes,
// nothing is known of the others: their conditions count as gone. Audio that stops while frames
// go on counts as silence, and so does audio that is wanted and not to be had; a source that has
// none at all is not silent.
//
// Pure arithmetic; owned and called by one channel on its streaming thread.
class AlarmMonitor {
 public:
  struct Change {
    AlarmKind kind = AlarmKind::kLoss;
    bool raised = false;
    Time since = 0;  // when the condition began, or was gone
  };
  using Sink = std::function<void(const Change&)>;

  // The levels of black and of freeze are the FrameMeter's.
  AlarmMonitor(const config::AlarmOptions& options, Sink sink);

  // A source was opened: why it gives no audio, or that it does.
  void Opened(AudioAbsence absence, Time now);
  // Whether its audio, which comes, can be decoded.
  void Decodable(bool isDecodable) { isDecodable_ = isDecodable; }
  void Picture(bool black, bool still, Time now);
  // loudest: greatest magnitude of a sample, full scale at 1; late: how long ago that was.
  void Audio(float loudest, Time now, Time late = 0);
  // No frame is there (since the given time), or frames come again.
  void Lost(Time since, Time now);
  void Found(Time now);
  // Time has passed: audio that is missing counts as silence.
  void Tick(Time now);

  bool raised(AlarmKind kind) const {
    return kind == AlarmKind::kClipping ? peaks_.raised() : timer(kind).raised();
  }
  Time raisedSince(AlarmKind kind) const {
    return kind == AlarmKind::kClipping ? peaks_.raisedSince() : timer(kind).raisedSince();
  }
  AudioState audio() const;
  // When the latest levels came, and since when they are those of silence.
  Time lastAudio() const { return lastAudio_; }
  Time silentSince() const { return quietSince_.value_or(lastAudio_); }
  bool pictureAlarm() const {
    return raised(AlarmKind::kLoss) || raised(AlarmKind::kBlack) || raised(AlarmKind::kFreeze);
  }

 private:
  const AlarmTimer& timer(AlarmKind kind) const { return timers_[static_cast<std::size_t>(kind)]; }
  void Update(AlarmKind kind, bool condition, Time now);
  void Heard(bool isQuiet, Time now);

  const config::AlarmOptions options_;
  const Sink sink_;
  const float silence_;                         // greatest magnitude that counts as silence
  const float clipping_;                        // least magnitude that counts as clipping
  std::array<AlarmTimer, kAlarmKinds> timers_;  // of all but clipping
  PeakTimer peaks_;                             // of clipping
  std::optional<AudioAbsence> absence_;         // none before the first opening
  bool isDecodable_ = true;
  bool heard_ = false;    // since the opening
  bool missing_ = false;  // nothing was heard for some time
  std::optional<Time> quietSince_;
  bool silent_ = false;  // what is heard is why the alarm for silence is raised
  bool lost_ = false;
  Time lastAudio_ = 0;
};

}  // namespace host
