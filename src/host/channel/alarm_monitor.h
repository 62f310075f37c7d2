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
  kUnknown,      // nothing is open, or no frame comes
  kOff,          // switched off in the wall file
  kPresent,      // it comes and is decoded
  kSilent,       // it comes, and the alarm for silence is raised
  kAbsent,       // the source has none
  kNoTrack,      // the source has none of the number that was chosen
  kNotStarted,   // the source announces it, but nothing has come
  kUndecodable,  // it comes, but cannot be decoded
  kStopped,      // it was there, and comes no more
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

// A condition must hold without a break for the time to set before the alarm is raised, and be gone
// without a break for the time to clear before it is over. Time comes in from outside and never
// runs here. Between two updates the condition is taken to be what the earlier one said. No lock:
// one thread.
class AlarmTimer {
 public:
  AlarmTimer() = default;
  AlarmTimer(Time setAfter, Time clearAfter) : setAfter_(setAfter), clearAfter_(clearAfter) {}

  // Other times from now on; what is raised stays so until it is over.
  void SetTimes(Time setAfter, Time clearAfter) {
    setAfter_ = setAfter;
    clearAfter_ = clearAfter;
  }

  // What the condition is at a time; times never decrease. The new state when it changes.
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
  // When the condition began that raised it.
  Time raisedSince() const { return raisedSince_; }

 private:
  Time setAfter_ = 0;
  Time clearAfter_ = 0;
  bool raised_ = false;
  bool condition_ = false;
  std::optional<Time> since_;  // of the condition's present value
  Time raisedSince_ = 0;
};

// The same for peaks, which never hold: the alarm is raised when within the time to set there were
// two a second on average, and over when there was none for the time to clear. Peaks that follow
// each other closely are one, so that a single loud moment is no alarm.
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

  // Whether there is a peak at a time; times never decrease. The new state when it changes.
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
  // When the first of the peaks came that raised it.
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

// Conditions and levels of the channel come in with their time on the wall's clock; each alarm has
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

  // Other alarms, times and levels from now on. One that is raised and no longer wanted is over.
  void SetOptions(const config::AlarmOptions& options, Time now);
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
  bool missing_ = false;  // no levels came for some time
  std::optional<Time> quietSince_;
  bool silent_ = false;  // the levels are why the alarm for silence is raised
  bool lost_ = false;
  Time lastAudio_ = 0;
};

}  // namespace host
