#include "host/channel/alarm_monitor.h"

#include <algorithm>
#include <cmath>

namespace host {
namespace {

// Longer than an audio packet of any codec, and than audio and video are apart.
constexpr Time kAudioMissing = kSecond;

float Magnitude(double decibels) {
  return static_cast<float>(std::pow(10.0, decibels / 20));
}

}  // namespace

const char* NameOf(AudioState state) {
  constexpr std::array<const char*, 9> kNames{"unknown",     "off",         "present",
                                              "silent",      "absent",      "no_track",
                                              "not_started", "undecodable", "stopped"};
  return kNames[static_cast<std::size_t>(state)];
}

AlarmMonitor::AlarmMonitor(const config::AlarmOptions& options, Sink sink)
    : sink_(std::move(sink)) {
  SetOptions(options, 0);
}

void AlarmMonitor::SetOptions(const config::AlarmOptions& options, Time now) {
  options_ = options;
  silence_ = Magnitude(options.silence.level);
  clipping_ = Magnitude(options.clipping.level);
  for (const AlarmKind kind : kAllAlarms) {
    const bool isOver = !options[kind].enabled && raised(kind);
    if (kind == AlarmKind::kClipping) {
      peaks_ = isOver ? PeakTimer() : peaks_;
      peaks_.SetTimes(options[kind].setAfter, options[kind].clearAfter);
    } else {
      AlarmTimer& own = timers_[static_cast<std::size_t>(kind)];
      own = isOver ? AlarmTimer() : own;
      own.SetTimes(options[kind].setAfter, options[kind].clearAfter);
    }
    if (isOver) {
      sink_({kind, false, now});
    }
  }
}

void AlarmMonitor::Update(AlarmKind kind, bool condition, Time now) {
  if (!options_[kind].enabled) {
    return;
  }
  const std::optional<bool> changed =
      kind == AlarmKind::kClipping ? peaks_.Update(condition, now)
                                   : timers_[static_cast<std::size_t>(kind)].Update(condition, now);
  if (changed.has_value()) {
    sink_({kind, *changed, *changed ? raisedSince(kind) : now - options_[kind].clearAfter});
  }
}

void AlarmMonitor::Opened(AudioAbsence absence, Time now) {
  absence_ = absence;
  isDecodable_ = true;
  heard_ = false;
  missing_ = false;
  quietSince_.reset();
  silent_ = false;
  lastAudio_ = now;
}

AudioState AlarmMonitor::audio() const {
  if (lost_ || !absence_.has_value()) {
    return AudioState::kUnknown;
  }
  switch (*absence_) {
    case AudioAbsence::kOff:
      return AudioState::kOff;
    case AudioAbsence::kNotInSource:
      return AudioState::kAbsent;
    case AudioAbsence::kNoTrack:
      return AudioState::kNoTrack;
    case AudioAbsence::kNotStarted:
      return AudioState::kNotStarted;
    case AudioAbsence::kUndecodable:
      return AudioState::kUndecodable;
    case AudioAbsence::kNone:
      break;
  }
  if (missing_) {
    return !isDecodable_ ? AudioState::kUndecodable
           : heard_      ? AudioState::kStopped
                         : AudioState::kNotStarted;
  }
  return silent_ && raised(AlarmKind::kSilence) ? AudioState::kSilent : AudioState::kPresent;
}

void AlarmMonitor::OnFrame(bool black, bool still, Time now) {
  Found(now);
  Update(AlarmKind::kBlack, black, now);
  // A black frame does not change either: one fault, one alarm.
  Update(AlarmKind::kFreeze, still && !black, now);
  Tick(now);
}

void AlarmMonitor::Audio(float loudest, Time now, Time late) {
  if (late >= kAudioMissing) {
    return;  // too old for the present state
  }
  lastAudio_ = std::max(lastAudio_, now - late);
  heard_ = true;
  missing_ = false;
  if (lost_) {
    return;
  }
  Update(AlarmKind::kSilence, loudest <= silence_, now);
  Heard(loudest <= silence_, now);
  Update(AlarmKind::kClipping, loudest >= clipping_, now);
}

// When audio returns after a stop, the alarm is still raised; the audio may be silent or not.
void AlarmMonitor::Heard(bool isQuiet, Time now) {
  quietSince_ = isQuiet ? std::optional(quietSince_.value_or(now)) : std::nullopt;
  const config::Alarm& times = options_.silence;
  const bool isLong =
      quietSince_.has_value() && now - *quietSince_ >= std::min(times.setAfter, times.clearAfter);
  silent_ = raised(AlarmKind::kSilence) && (silent_ || isLong);
}

void AlarmMonitor::Lost(Time since, Time now) {
  if (!lost_) {
    lost_ = true;
    Update(AlarmKind::kLoss, true, since);
  }
  Update(AlarmKind::kLoss, true, now);
  for (const AlarmKind kind :
       {AlarmKind::kBlack, AlarmKind::kFreeze, AlarmKind::kSilence, AlarmKind::kClipping}) {
    Update(kind, false, now);
  }
}

void AlarmMonitor::Found(Time now) {
  if (lost_) {
    lastAudio_ = now;
    missing_ = false;
  }
  lost_ = false;
  Update(AlarmKind::kLoss, false, now);
}

void AlarmMonitor::Tick(Time now) {
  if (lost_) {
    return;
  }
  missing_ = now - lastAudio_ >= kAudioMissing;
  const AudioAbsence absence = absence_.value_or(AudioAbsence::kOff);
  if (absence != AudioAbsence::kNone || missing_) {
    quietSince_.reset();
    silent_ = false;
    const bool isWanted = absence != AudioAbsence::kOff && absence != AudioAbsence::kNotInSource;
    Update(AlarmKind::kSilence, isWanted, now);
    Update(AlarmKind::kClipping, false, now);
  }
}

}  // namespace host
