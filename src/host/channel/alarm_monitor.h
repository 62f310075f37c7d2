// AlarmMonitor: the alarms and the audio status of one channel.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "host/channel/source/media_info.h"
#include "host/config/wall.h"
#include "host/units.h"

namespace host {

enum class AudioState {
  kUnknown,      // nothing is open, or no frame arrives
  kOff,          // switched off in the wall file
  kPresent,      // arrives and is decoded
  kSilent,       // arrives, and the alarm for silence is raised
  kAbsent,       // the source has none
  kNoTrack,      // the source has no track of the chosen number
  kNotStarted,   // the source announces it, but nothing has arrived
  kUndecodable,  // arrives, but cannot be decoded
  kStopped,      // has arrived, but no longer does
};

// "unknown", "off", "present", "silent", "absent", "no_track", "not_started", "undecodable",
// "stopped".
const char* NameOf(AudioState state);

struct AudioStatus {
  AudioState state = AudioState::kUnknown;
  std::string reason;  // one sentence, no full stop; empty where the state says it all
  Time since = 0;      // of the wall's time
  bool operator==(const AudioStatus&) const = default;
};

// The alarm is raised once its condition has held without a break for the time to set, and over
// once it has been gone without a break for the time to clear. The caller passes the time. Between
// two updates the condition is taken to be that of the earlier one. No lock: one thread.
class AlarmTimer {
 public:
  AlarmTimer() = default;
  AlarmTimer(Time setAfter, Time clearAfter) : setAfter_(setAfter), clearAfter_(clearAfter) {}

  // Changes the times; a raised alarm stays raised until it is over.
  void SetTimes(Time setAfter, Time clearAfter) {
    setAfter_ = setAfter;
    clearAfter_ = clearAfter;
  }

  // The condition at a time; times never decrease. Returns the new state when it changes.
  std::optional<bool> Update(bool condition, Time now) {
    if (!since_.has_value() || condition != condition_) {
      condition_ = condition;
      since_ = now;
    }
    if (condition_ == raised_ || now - *since_ < (condition_ ? setAfter_ : clearAfter_)) {
      return std::nullopt;
    }
    raised_ = condition_;
    if (raised_) {
      raisedSince_ = *since_;
    }
    return raised_;
  }

  bool raised() const { return raised_; }
  // When the condition that raised it began.
  Time raisedSince() const { return raisedSince_; }

 private:
  Time setAfter_ = 0;
  Time clearAfter_ = 0;
  bool raised_ = false;
  bool condition_ = false;
  std::optional<Time> since_;  // of the condition's present value
  Time raisedSince_ = 0;
};

// The same for peaks, which have no duration: the alarm is raised when there were two a second on
// average within the time to set, and over when there was none for the time to clear. Peaks in
// close succession count as one, so that a single loud moment raises no alarm.
class PeakTimer {
 public:
  PeakTimer() = default;
  PeakTimer(Time setAfter, Time clearAfter)
      : setAfter_(setAfter),
        clearAfter_(clearAfter),
        needed_(static_cast<std::size_t>(std::max<Time>(2 * setAfter / kSecond, 1))) {}

  // As AlarmTimer.
  void SetTimes(Time setAfter, Time clearAfter) {
    const PeakTimer other(setAfter, clearAfter);
    setAfter_ = setAfter;
    clearAfter_ = clearAfter;
    needed_ = other.needed_;
  }

  // Whether there is a peak at a time; times never decrease. Returns the new state when it changes.
  std::optional<bool> Update(bool isPeak, Time now) {
    if (isPeak) {
      latest_ = now;
      if (peaks_.empty() || now - peaks_.back() >= kOnePeak) {
        peaks_.push_back(now);
      }
    }
    while (!peaks_.empty() && now - peaks_.front() > setAfter_) {
      peaks_.pop_front();
    }
    if (raised_ ? now - latest_ < clearAfter_ : peaks_.size() < needed_) {
      return std::nullopt;
    }
    raised_ = !raised_;
    raisedSince_ = raised_ ? peaks_.front() : raisedSince_;
    peaks_.clear();
    return raised_;
  }

  bool raised() const { return raised_; }
  // Time of the first of the peaks that raised it.
  Time raisedSince() const { return raisedSince_; }

 private:
  static constexpr Time kOnePeak = kSecond / 4;

  Time setAfter_ = 0;
  Time clearAfter_ = 0;
  std::size_t needed_ = 1;
  std::deque<Time> peaks_;  // within the time to set: four a second at most
  Time latest_ = 0;
  bool raised_ = false;
  Time raisedSince_ = 0;
};

using config::AlarmKind;
using config::kAlarmKinds;
using config::kAllAlarms;

// Takes the conditions and levels of the channel with their time on the wall's clock. Each alarm
// has a time to set and a time to clear; for clipping, peaks are counted. While no frame arrives,
// the conditions of all alarms except loss count as gone. Audio that stops while frames continue
// counts as silence, and so does audio that is wanted but not available; a source without audio is
// not silent.
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

  // Changes alarms, times and levels. A raised alarm that is no longer enabled is over.
  void SetOptions(const config::AlarmOptions& options, Time now);
  // A source was opened; absence: why it has no audio, if so.
  void Opened(AudioAbsence absence, Time now);
  // Whether the audio that arrives can be decoded.
  void Decodable(bool isDecodable) { isDecodable_ = isDecodable; }
  void OnFrame(bool black, bool still, Time now);
  // loudest: greatest magnitude of a sample, full scale at 1; late: how long ago that was.
  void Audio(float loudest, Time now, Time late = 0);
  // No frame arrives (since the given time), or frames arrive again.
  void Lost(Time since, Time now);
  void Found(Time now);
  // Time has passed: missing audio counts as silence.
  void Tick(Time now);

  bool raised(AlarmKind kind) const {
    return kind == AlarmKind::kClipping ? peaks_.raised() : timer(kind).raised();
  }
  Time raisedSince(AlarmKind kind) const {
    return kind == AlarmKind::kClipping ? peaks_.raisedSince() : timer(kind).raisedSince();
  }
  AudioState audio() const;
  // When the latest levels arrived, and since when they have been silent.
  Time lastAudio() const { return lastAudio_; }
  Time silentSince() const { return quietSince_.value_or(lastAudio_); }

 private:
  const AlarmTimer& timer(AlarmKind kind) const { return timers_[static_cast<std::size_t>(kind)]; }
  void Update(AlarmKind kind, bool condition, Time now);
  void Heard(bool isQuiet, Time now);

  config::AlarmOptions options_;
  const Sink sink_;
  float silence_ = 0;                           // greatest magnitude that counts as silence
  float clipping_ = 0;                          // least magnitude that counts as clipping
  std::array<AlarmTimer, kAlarmKinds> timers_;  // of all but clipping
  PeakTimer peaks_;                             // of clipping
  std::optional<AudioAbsence> absence_;         // none before the first opening
  bool isDecodable_ = true;
  bool heard_ = false;    // since the opening
  bool missing_ = false;  // no levels for some time
  std::optional<Time> quietSince_;
  bool silent_ = false;  // the alarm for silence is raised because of the levels
  bool lost_ = false;
  Time lastAudio_ = 0;
};

}  // namespace host
