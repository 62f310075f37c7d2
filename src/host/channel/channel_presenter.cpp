#include "host/channel/channel_presenter.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <thread>
#include <utility>

#include "host/channel/captions.h"
#include "host/feed/alarm_record.h"
#include "host/feed/anchor_sample.h"
#include "host/feed/feed_pin.h"
#include "host/ffmpeg/error.h"

namespace host {
namespace {

// States and alarms follow the time in steps of that length.
constexpr Time kLookEvery = kSecond / 5;
// Frames that follow each other like that are not only keyframes.
constexpr Time kFrequent = 300 * kMillisecond;
// Tries to anchor the channel's time between two background frames.
constexpr int kAnchorTries = 4;
// A source that opens at once never shows a slate.
constexpr Time kOpeningTimeout = kSecond;

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
      controls_(ChannelControls::Of(settings_.channel)),
      life_(controls_.hold, 0),
      alarms_(controls_.alarm,
              [this](const AlarmMonitor::Change& change) {
                acknowledged_[static_cast<std::size_t>(change.kind)] = false;
                observer_->AlarmChanged(settings_.channel.name, change);
              }),
      frames_(2, settings_.delay()),
      levels_(1, settings_.delay()),
      size_(settings_, pins_.video) {}

void ChannelPresenter::Begin(Time now, Handover before) {
  frames_.Clear();
  levels_.Clear();
  if (before.frames && before.levels) {
    frames_ = *before.frames;
    levels_ = *before.levels;
  }
  kept_ = std::move(before.kept);
  size_.Begin(now, before.size);
  life_ = ChannelLife(controls_.hold, now);
  now_ = now;
  looked_ = now;
  looks_.clear();
  pristine_.clear();
  slateText_.clear();
  slate_.clear();
  hasVideo_ = true;
  hasAudio_ = false;
  audio_ = {};
}

void ChannelPresenter::End() {
  kept_ = nullptr;
}

ChannelPresenter::Handover ChannelPresenter::HandOver() {
  return {frames_, levels_, std::exchange(kept_, nullptr), size_.size()};
}

void ChannelPresenter::FollowSize(Time time) {
  while (const auto change = size_.Next(time)) {
    ChangeSize(*change);
  }
}

// No composed frame may find a frame of the other size nearer than one of its own: there is one of
// the former size at the time of the last composed frame that has it, and one of the new size at
// that of the first.
void ChannelPresenter::ChangeSize(const WindowSchedule::Resize& change) {
  const Time last = change.at - FrameDuration(settings_.canvas.frameRate);
  const bool repeats = frames_.begun();
  if (repeats && frames_.Takes(last)) {
    Repeat(last);
  }
  const WindowSize former = size_.Change(change);
  slate_.clear();
  slateText_.clear();
  if (kept_ != nullptr && !pristine_.empty()) {
    // It is in the composer: its caption stays in that copy.
    const ComPtr<IMediaSample> clean =
        pins_.video.NewFrame(change.at, change.at + 1, false, static_cast<LONG>(pristine_.size()));
    BYTE* to = nullptr;
    if (clean && SUCCEEDED(clean->GetPointer(&to))) {
      std::memcpy(to, pristine_.data(), pristine_.size());
      kept_ = clean;
    }
  }
  pristine_.clear();
  kept_ = kept_ != nullptr ? size_.Resized(kept_.Get(), former) : nullptr;
  if (repeats && frames_.Takes(change.at)) {
    Repeat(change.at);
  }
}

void ChannelPresenter::SetControls(const ChannelControls& controls) {
  for (const AlarmKind kind : kAllAlarms) {
    const auto i = static_cast<std::size_t>(kind);
    const bool isNew = controls.acknowledged[i] != controls_.acknowledged[i];
    acknowledged_[i] = alarms_.raised(kind) && (isNew || acknowledged_[i]);
  }
  life_.SetHold(controls.hold);
  if (!(controls.alarm == controls_.alarm)) {
    alarms_.SetOptions(controls.alarm, now_);
  }
  controls_ = controls;
  NoteLook();
}

bool ChannelPresenter::isMasked() const {
  return controls_.maskedUntil && std::chrono::system_clock::now() < *controls_.maskedUntil;
}

bool ChannelPresenter::isUrgent(AlarmKind kind) const {
  return alarms_.raised(kind) && !acknowledged_[static_cast<std::size_t>(kind)] && !isMasked();
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
    // The frames between keyframes come again behind the next one only.
    awaitsFrames_ = !event.keyframesOnly;
    keyframesOnly_ = event.keyframesOnly;
    if (keyframesOnly_) {
      life_.Expect(kKeyframeDuration);
    }
    NoteLook();
    return;
  }
  if (event.kind == SourceEvent::Kind::kAudio) {
    audioReason_ = event.audioReason;
    alarms_.Decodable(event.audioAbsence == AudioAbsence::kNone);
    return;
  }
  if (event.kind == SourceEvent::Kind::kRenamed) {
    return;
  }
  Report(life_.Failed(event.reason, now_));
  NoteLook();
}

void ChannelPresenter::Show(const ReadyFrame& picture, Time start, Time duration) {
  duration = std::max<Time>(duration, 1);
  now_ = std::max(now_, start);
  FollowSize(start);
  // Made before the window had the size that it has at that time.
  const bool hasSize = picture.size == size_.size() || picture.size.width == 0;
  const ComPtr<IMediaSample> frame =
      hasSize ? picture.sample : size_.Resized(picture.sample.Get(), picture.size);
  if (!frames_.Takes(start) || !frame) {
    ++late_;
    life_.CameLate(now_);
    return;
  }
  if (awaitsFrames_ && start - shownAt_ < kFrequent) {
    awaitsFrames_ = false;
    life_.Expect(0);
  }
  shownAt_ = start;
  Report(life_.Shown(now_, duration));
  alarms_.Picture(picture.condition.black, picture.condition.still, now_);
  ReportAudio();
  NoteLook();
  BYTE* pixels = nullptr;
  frame->GetPointer(&pixels);
  const std::string caption = CaptionText();
  pristine_.clear();
  if (!caption.empty()) {
    pristine_.assign(pixels, pixels + frameBytes());
    text_.DrawCaption(Window(pixels), caption);
  }
  kept_ = frame;
  SendFrame(frame.Get(), start, start + duration);
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
  if (const std::optional<Time> change = size_.nextChange()) {
    next = std::min(next, *change);
  }
  if (frames_.begun()) {
    next = std::min({next, frames_.nextRepeat(), levels_.nextRepeat()});
  }
  return std::max(next, now_);
}

void ChannelPresenter::Tick(Time now) {
  FollowSize(now);
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
    SendLevels(start, levels_.step(), AudioLevels{});
  }
}

bool ChannelPresenter::showsSlate() const {
  switch (life_.status().state) {
    case ChannelState::kOpening:
      return now_ - life_.status().since >= kOpeningTimeout ||
             (kept_ == nullptr && frames_.begun());
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
    if (isMasked()) {
      break;
    }
    const char* const note = acknowledged_[static_cast<std::size_t>(kind)] ? " (acknowledged)" : "";
    if (kind == AlarmKind::kSilence) {
      const std::string caption = AudioCaption();
      add(caption.empty() ? caption : caption + note);
    } else if (alarms_.raised(kind)) {
      add(std::string(CaptionOf(kind)) + " since " + settings_.timeText(alarms_.raisedSince(kind)) +
          note);
    }
  }
  if (isMasked()) {
    add("ALARMS MASKED");
  }
  if (keyframesOnly_) {
    add("KEYFRAMES ONLY");
  }
  return text;
}

// What an empty meter means: at once where there is a meter, otherwise when the alarm is raised.
std::string ChannelPresenter::AudioCaption() const {
  std::string text;
  if (controls_.hasMeter || alarms_.raised(AlarmKind::kSilence)) {
    text = CaptionOf(audio_.state);
  }
  const bool hasBegun = audio_.state == AudioState::kSilent || audio_.state == AudioState::kStopped;
  return !text.empty() && hasBegun ? text + " since " + settings_.timeText(audio_.since) : text;
}

WindowPixels ChannelPresenter::Window(BYTE* pixels) const {
  return {
      {pixels, static_cast<std::size_t>(frameBytes())}, size_.size().width, size_.size().height};
}

void ChannelPresenter::NoteLook() {
  Look look;
  look.slate = showsSlate();
  look.text = look.slate ? SlateText() : CaptionText();
  if (looks_.empty() || looks_.back().second != look) {
    looks_.emplace_back(now_, std::move(look));
  }
  while (looks_.size() > 1 && looks_[1].first <= now_ - settings_.delay()) {
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
  const Time stop = start + frames_.step();
  const Look& look = LookAt(start);
  if (look.slate || (kept_ == nullptr && frames_.begun())) {
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
  const ComPtr<IMediaSample> sample = pins_.video.NewFrame(start, stop, false, frameBytes());
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
  pins_.videoAlarm.Send(ToWire(VideoAlarmRecord{hasPictureAlarm(), 0}), start, stop);
  // The alarms of a channel show only where it has a meter.
  if (!hasAudio_) {
    SendLevels(start, stop - start, AudioLevels{});
  }
}

// The composer sets a channel's time to its own with a frame that finds fewer than two others
// waiting, and shows everything its own latency later. Copies of it go first that carry the
// composer's present time, plus what the wall's delay is shorter than that latency: so the
// channel's times are the wall's exactly, and its frames are shown the delay after them.
bool ChannelPresenter::AnchorClock(const BYTE* pixels, Time start) {
  std::optional<Time> present = settings_.presentFrame();
  if (present && frames_.begun() && !frames_.IsDry(*present)) {
    return true;
  }
  if (frames_.begun() && settings_.logger != nullptr) {
    settings_.logger->IncrementResync();
  }
  const Time saved = config::kMaxDelay - settings_.delay();
  const LONG size = frameBytes();
  std::optional<Time> anchored;
  for (int tries = 0; tries < kAnchorTries && anchored != present; ++tries) {
    if (!present) {
      std::this_thread::yield();  // the background is about to send a frame
      present = settings_.presentFrame();
      continue;
    }
    for (int copies = 0; copies < 2; ++copies) {
      const ComPtr<IMediaSample> copy = pins_.video.NewFrame(*present, *present + 1, false, size);
      BYTE* to = nullptr;
      if (!copy || FAILED(copy->GetPointer(&to))) {
        return true;
      }
      std::memcpy(to, pixels, static_cast<std::size_t>(size));
      copy->SetActualDataLength(size);
      copy->SetDiscontinuity(TRUE);
      // With a type of its own it is not wrapped by the composer's pin, and stays movable.
      pins_.video.AttachType(*copy);
      const ComPtr<AnchorSample> anchor = AnchorSample::Create(copy, *present + saved);
      Deliver(anchor.Get());
      anchor->MoveTo(*present);
      frames_.Sent(*present);
    }
    anchored = present;
    present = settings_.presentFrame();
  }
  return frames_.Takes(start);
}

void ChannelPresenter::Deliver(IMediaSample* sample) {
  if (size_.needsType(now_) || (settings_.wantsType && settings_.wantsType())) {
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
  record.condition1 = isUrgent(AlarmKind::kSilence);
  record.condition2 = isUrgent(AlarmKind::kClipping);
  record.metersEnabled = controls_.hasMeter;
  record.levels = levels;
  pins_.audioAlarm.Send(ToWire(record), start, start + duration);
}

}  // namespace host
