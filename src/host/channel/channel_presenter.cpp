#include "host/channel/channel_presenter.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <thread>
#include <utility>

#include "host/feed/alarm_record.h"
#include "host/feed/feed_pin.h"

namespace host {
namespace {

// States and alarms follow the time in steps of that length.
constexpr Time kLookEvery = kSecond / 5;
// Tries to anchor the channel's time between two background frames.
constexpr int kAnchorTries = 4;
// A source that opens at once never shows a slate.
constexpr Time kOpeningTimeout = kSecond;

// Of what makes a meter empty.
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

std::string Capitalised(std::string text) {
  if (!text.empty()) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  }
  return text;
}

}  // namespace

ChannelPresenter::ChannelPresenter(const ChannelSettings& settings, Pins pins,
                                   ChannelObserver* observer)
    : settings_(settings),
      pins_(pins),
      observer_(observer),
      life_(settings_.channel.options.hold, 0),
      alarms_(settings_.channel.options.alarm, [this](const AlarmMonitor::Change& change) {
        observer_->AlarmChanged(settings_.channel.name, change);
      }) {}

void ChannelPresenter::Begin(Time now) {
  life_ = ChannelLife(settings_.channel.options.hold, now);
  now_ = now;
  looked_ = now;
  frames_.Clear();
  levels_.Clear();
  looks_.clear();
  hasVideo_ = true;
  hasAudio_ = false;
  audio_ = {};
}

void ChannelPresenter::End() {
  kept_ = nullptr;
}

void ChannelPresenter::Report(bool changed) {
  if (changed) {
    observer_->ChannelChanged(settings_.channel.name, life_.status());
  }
}

void ChannelPresenter::ReportAudio() {
  AudioStatus status = audio_;
  status.state = alarms_.audio();
  if (status.state == audio_.state) {
    return;
  }
  const bool isHeard = status.state == AudioState::kPresent || status.state == AudioState::kSilent;
  status.reason = isHeard || status.state == AudioState::kUnknown ? std::string() : audioReason_;
  status.since = status.state == AudioState::kSilent    ? alarms_.silentSince()
                 : status.state == AudioState::kStopped ? alarms_.lastAudio()
                                                        : now_;
  audio_ = std::move(status);
  observer_->AudioChanged(settings_.channel.name, audio_);
}

// What follows from the time alone.
void ChannelPresenter::Watch(Time now) {
  now_ = std::max(now_, now);
  if (settings_.decodeSeat && settings_.decodeSeat->waits()) {
    life_.CameLate(now_);
  }
  Report(life_.Tick(now_));
  if (life_.status().state == ChannelState::kLive) {
    alarms_.Tick(now_);
  } else {
    alarms_.Lost(life_.status().since, now_);
  }
  ReportAudio();
  NoteLook();
}

void ChannelPresenter::OnSourceEvent(const SourceEvent& event, Time now) {
  now_ = std::max(now_, now);
  if (event.kind == SourceEvent::Kind::kOpened) {
    hasVideo_ = event.hasVideo;
    hasAudio_ = event.hasAudio;
    noVideoReason_ = event.reason;
    audioReason_ = event.audioReason;
    alarms_.Opened(event.audioAbsence, now_);
    return;
  }
  if (event.kind == SourceEvent::Kind::kDecoding) {
    keyframesOnly_ = event.keyframesOnly;
    life_.Expect(keyframesOnly_ ? kKeyframeDuration : 0);
    NoteLook();
    return;
  }
  if (event.kind == SourceEvent::Kind::kAudio) {
    audioReason_ = event.audioReason;
    alarms_.Decodable(event.audioAbsence == AudioAbsence::kNone);
    return;
  }
  Report(life_.Failed(event.reason, now_));
  NoteLook();
}

void ChannelPresenter::Show(const ReadyFrame& picture, Time start, Time duration) {
  duration = std::max<Time>(duration, 1);
  now_ = std::max(now_, start);
  if (!frames_.Takes(start)) {
    ++late_;
    life_.CameLate(now_);
    return;
  }
  Report(life_.Shown(now_, duration));
  alarms_.Picture(picture.condition.black, picture.condition.still, now_);
  ReportAudio();
  NoteLook();
  BYTE* pixels = nullptr;
  picture.sample->GetPointer(&pixels);
  const std::string caption = CaptionText();
  pristine_.clear();
  if (!caption.empty()) {
    pristine_.assign(pixels, pixels + frameBytes());
    text_.DrawCaption(Window(pixels), caption);
  }
  kept_ = picture.sample;
  SendFrame(picture.sample.Get(), start, start + duration);
}

void ChannelPresenter::Show(const ReadyLevels& levels, Time start, Time duration) {
  now_ = std::max(now_, start);
  if (!hasVideo_) {
    Report(life_.Shown(now_, duration));
    alarms_.Found(now_);
  }
  alarms_.Audio(levels.loudest, now_, now_ - start);
  ReportAudio();
  SendLevels(start, duration, levels.levels);
}

Time ChannelPresenter::nextTick() const {
  Time next = looked_ + kLookEvery;
  if (frames_.begun()) {
    next = std::min({next, frames_.nextRepeat(), levels_.nextRepeat()});
  }
  return std::max(next, now_);
}

void ChannelPresenter::Tick(Time now) {
  if (now - looked_ >= kLookEvery) {
    looked_ = now;
    Watch(now);
    if (!frames_.begun()) {
      Repeat(now_);
    }
  }
  now_ = std::max(now_, now);
  if (frames_.begun() && frames_.nextRepeat() <= now_) {
    Repeat(frames_.RepeatAt(now_));
  }
  if (frames_.begun() && levels_.nextRepeat() <= now_) {
    const Time start = levels_.RepeatAt(now_);
    SendLevels(start, WindowFill::kStep, AudioLevels{});
  }
}

bool ChannelPresenter::showsSlate() const {
  switch (life_.status().state) {
    case ChannelState::kOpening:
      return now_ - life_.status().since >= kOpeningTimeout;
    case ChannelState::kLive:
      return !hasVideo_;
    case ChannelState::kHeld:
      return kept_ == nullptr;
    case ChannelState::kLost:
      return true;
  }
  return true;
}

std::string ChannelPresenter::SlateText() const {
  const ChannelLife::Status& status = life_.status();
  switch (status.state) {
    case ChannelState::kOpening:
      return settings_.channel.name + "\nopening";
    case ChannelState::kLive:
      return settings_.channel.name + "\nSound only: " + noVideoReason_;
    case ChannelState::kHeld:
    case ChannelState::kLost:
      break;
  }
  return settings_.channel.name + "\n" + Capitalised(status.reason) + "\nsince " +
         settings_.timeText(status.since);
}

std::string ChannelPresenter::CaptionText() const {
  std::string text;
  const auto add = [&](const std::string& part) {
    text += (text.empty() || part.empty() ? "" : " \u00b7 ") + part;
  };
  for (const AlarmKind kind : kAllAlarms) {
    if (kind == AlarmKind::kSilence) {
      add(AudioCaption());
    } else if (alarms_.raised(kind)) {
      add(std::string(CaptionOf(kind)) + " since " + settings_.timeText(alarms_.raisedSince(kind)));
    }
  }
  if (keyframesOnly_) {
    add("KEYFRAMES ONLY");
  }
  return text;
}

// What an empty meter means: at once where there is a meter, otherwise when the alarm is raised.
std::string ChannelPresenter::AudioCaption() const {
  std::string text;
  if (settings_.channel.options.audio.meter || alarms_.raised(AlarmKind::kSilence)) {
    text = CaptionOf(audio_.state);
  }
  const bool hasBegun = audio_.state == AudioState::kSilent || audio_.state == AudioState::kStopped;
  return !text.empty() && hasBegun ? text + " since " + settings_.timeText(audio_.since) : text;
}

LONG ChannelPresenter::frameBytes() const {
  return FrameBytes(settings_.channel.window.width, settings_.channel.window.height);
}

WindowPixels ChannelPresenter::Window(BYTE* pixels) const {
  const config::Window& window = settings_.channel.window;
  return {{pixels, static_cast<std::size_t>(frameBytes())}, window.width, window.height};
}

void ChannelPresenter::NoteLook() {
  Look look;
  look.slate = showsSlate();
  look.text = look.slate ? SlateText() : CaptionText();
  if (looks_.empty() || looks_.back().second != look) {
    looks_.emplace_back(now_, std::move(look));
  }
  while (looks_.size() > 1 && looks_[1].first <= now_ - WindowFill::kLatency) {
    looks_.pop_front();
  }
}

const ChannelPresenter::Look& ChannelPresenter::LookAt(Time time) {
  if (looks_.empty()) {
    NoteLook();
  }
  auto look = std::prev(looks_.end());
  while (look != looks_.begin() && look->first > time) {
    --look;
  }
  return look->second;
}

// Sends again what the window shows.
void ChannelPresenter::Repeat(Time start) {
  const Time stop = start + WindowFill::kStep;
  const Look& look = LookAt(start);
  if (look.slate) {
    if (slate_.empty() || look.text != slateText_) {
      slate_.resize(static_cast<std::size_t>(frameBytes()));
      text_.DrawSlate(Window(slate_.data()), look.text);
      slateText_ = look.text;
    }
    SendCopy(slate_.data(), {}, start, stop);
    return;
  }
  BYTE* pixels = nullptr;
  if (kept_ != nullptr && SUCCEEDED(kept_->GetPointer(&pixels))) {
    SendCopy(pristine_.empty() ? pixels : pristine_.data(), look.text, start, stop);
  }
}

void ChannelPresenter::SendCopy(const std::uint8_t* pixels, const std::string& caption, Time start,
                                Time stop) {
  const ComPtr<IMediaSample> sample = pins_.video.NewSample(start, stop, false);
  BYTE* to = nullptr;
  if (!sample || FAILED(sample->GetPointer(&to))) {
    return;
  }
  const LONG size = frameBytes();
  std::memcpy(to, pixels, static_cast<std::size_t>(size));
  sample->SetActualDataLength(size);
  sample->SetSyncPoint(TRUE);
  if (!caption.empty()) {
    text_.DrawCaption(Window(to), caption);
  }
  SendFrame(sample.Get(), start, stop);
}

void ChannelPresenter::SendFrame(IMediaSample* sample, Time start, Time stop) {
  BYTE* pixels = nullptr;
  sample->GetPointer(&pixels);
  if (AnchorClock(pixels, start)) {
    sample->SetTime(&start, &stop);
    Deliver(sample);
    frames_.Sent(start);
  }
  pins_.videoAlarm.Send(ToWire(VideoAlarmRecord{alarms_.pictureAlarm(), 0}), start, stop);
  // The alarms of a channel show only where it has a meter.
  if (!hasAudio_) {
    SendLevels(start, stop - start, AudioLevels{});
  }
}

// The composer sets a channel's time to its own with a frame that finds fewer than two others
// waiting. Copies of it that carry the composer's present time go first, so that the channel's
// times are the wall's exactly.
bool ChannelPresenter::AnchorClock(const BYTE* pixels, Time start) {
  std::optional<Time> present = settings_.presentFrame();
  if (present && frames_.begun() && !frames_.IsDry(*present)) {
    return true;
  }
  if (frames_.begun() && settings_.logger != nullptr) {
    settings_.logger->IncrementResync();
  }
  const LONG size = frameBytes();
  std::optional<Time> anchored;
  for (int tries = 0; tries < kAnchorTries && anchored != present; ++tries) {
    if (!present) {
      std::this_thread::yield();  // the background is about to send a frame
      present = settings_.presentFrame();
      continue;
    }
    for (int copies = 0; copies < 2; ++copies) {
      const ComPtr<IMediaSample> copy = pins_.video.NewSample(*present, *present + 1, false);
      BYTE* to = nullptr;
      if (!copy || FAILED(copy->GetPointer(&to))) {
        return true;
      }
      std::memcpy(to, pixels, static_cast<std::size_t>(size));
      copy->SetActualDataLength(size);
      copy->SetDiscontinuity(TRUE);
      Deliver(copy.Get());
      frames_.Sent(*present);
    }
    anchored = present;
    present = settings_.presentFrame();
  }
  return frames_.Takes(start);
}

void ChannelPresenter::Deliver(IMediaSample* sample) {
  if (settings_.wantsType && settings_.wantsType()) {
    pins_.video.AttachType(*sample);
  }
  pins_.video.Deliver(sample);
  if (settings_.frameSent) {
    settings_.frameSent();
  }
}

void ChannelPresenter::SendLevels(Time start, Time duration, const AudioLevels& levels) {
  if (!levels_.Takes(start)) {
    return;  // an earlier record would make the composer forget those that wait
  }
  levels_.Sent(start);
  AudioAlarmRecord record;
  record.alarmEnabled = true;
  record.condition1 = alarms_.raised(AlarmKind::kSilence);
  record.condition2 = alarms_.raised(AlarmKind::kClipping);
  record.metersEnabled = settings_.channel.options.audio.meter;
  record.levels = levels;
  pins_.audioAlarm.Send(ToWire(record), start, start + duration);
}

}  // namespace host
