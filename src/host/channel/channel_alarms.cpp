#include "host/channel/channel_alarms.h"

#include <chrono>
#include <utility>

namespace host {
namespace {

// Of what makes a meter empty; "" for what needs no word.
const char* CaptionOf(AudioState state) {
  switch (state) {
    case AudioState::kUnknown:
    case AudioState::kOff:
    case AudioState::kPresent:
      return "";
    case AudioState::kSilent:
      return "SILENT";
    case AudioState::kAbsent:
      return "NO AUDIO";
    case AudioState::kNoTrack:
      return "AUDIO TRACK MISSING";
    case AudioState::kNotStarted:
      return "AUDIO NOT STARTED";
    case AudioState::kUndecodable:
      return "AUDIO NOT DECODABLE";
    case AudioState::kStopped:
      return "AUDIO STOPPED";
  }
  return "";
}

// "" for silence, whose kind the state of the audio tells.
const char* CaptionOf(AlarmKind kind) {
  switch (kind) {
    case AlarmKind::kLoss:
      return "NO PICTURE";
    case AlarmKind::kBlack:
      return "BLACK";
    case AlarmKind::kFreeze:
      return "FROZEN";
    case AlarmKind::kSilence:
      break;  // says which kind, see above
    case AlarmKind::kClipping:
      return "CLIPPING";
  }
  return "";
}

}  // namespace

ChannelAlarms::ChannelAlarms(const config::Channel& channel, ChannelObserver* observer)
    : name_(channel.name),
      observer_(observer),
      controls_(channel.options),
      monitor_(controls_.alarm, [this](const AlarmMonitor::Change& change) {
        acknowledged_[static_cast<std::size_t>(change.kind)] = false;
        observer_->AlarmChanged(name_, change);
      }) {}

void ChannelAlarms::SetControls(const ChannelControls& controls, Time now) {
  for (const AlarmKind kind : kAllAlarms) {
    const auto i = static_cast<std::size_t>(kind);
    const bool isNew = controls.acknowledged[i] != controls_.acknowledged[i];
    acknowledged_[i] = monitor_.raised(kind) && (isNew || acknowledged_[i]);
  }
  if (!(controls.alarm == controls_.alarm)) {
    monitor_.SetOptions(controls.alarm, now);
  }
  controls_ = controls;
}

bool ChannelAlarms::isMasked() const {
  return controls_.maskedUntil && std::chrono::system_clock::now() < *controls_.maskedUntil;
}

bool ChannelAlarms::isUrgent(AlarmKind kind) const {
  return monitor_.raised(kind) && !acknowledged_[static_cast<std::size_t>(kind)] && !isMasked();
}

void ChannelAlarms::ReportAudio(Time now) {
  AudioStatus status = audio_;
  status.state = monitor_.audio();
  if (status.state == audio_.state) {
    return;
  }
  const bool isHeard = status.state == AudioState::kPresent || status.state == AudioState::kSilent;
  status.reason = isHeard || status.state == AudioState::kUnknown ? std::string() : audioReason_;
  status.since = status.state == AudioState::kSilent    ? monitor_.silentSince()
                 : status.state == AudioState::kStopped ? monitor_.lastAudio()
                                                        : now;
  audio_ = std::move(status);
  observer_->AudioChanged(name_, audio_);
}

void AddToCaption(std::string& caption, const std::string& part) {
  caption += (caption.empty() || part.empty() ? "" : " \u00b7 ") + part;
}

std::string ChannelAlarms::Caption(const std::function<std::string(Time)>& timeText) const {
  std::string text;
  for (const AlarmKind kind : kAllAlarms) {
    if (isMasked()) {
      break;
    }
    const char* const note = acknowledged_[static_cast<std::size_t>(kind)] ? " (acknowledged)" : "";
    if (kind == AlarmKind::kSilence) {
      const std::string caption = AudioCaption(timeText);
      AddToCaption(text, caption.empty() ? caption : caption + note);
    } else if (monitor_.raised(kind)) {
      AddToCaption(text, std::string(CaptionOf(kind)) + " since " +
                             timeText(monitor_.raisedSince(kind)) + note);
    }
  }
  if (isMasked()) {
    AddToCaption(text, "ALARMS MASKED");
  }
  return text;
}

// What an empty meter means: at once where there is a meter, otherwise when the alarm is raised.
std::string ChannelAlarms::AudioCaption(const std::function<std::string(Time)>& timeText) const {
  std::string text;
  if (controls_.hasMeter || monitor_.raised(AlarmKind::kSilence)) {
    text = CaptionOf(audio_.state);
  }
  const bool hasBegun = audio_.state == AudioState::kSilent || audio_.state == AudioState::kStopped;
  return !text.empty() && hasBegun ? text + " since " + timeText(audio_.since) : text;
}

}  // namespace host
