#include "host/channel/channel_presenter.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "host/feed/alarm_record.h"

namespace host {
namespace {

// States and alarms are updated this often.
constexpr Time kLookEvery = kSecond / 5;
// Frames that follow each other this closely are not keyframes only.
constexpr Time kFrequent = 300 * kMillisecond;
// A source that opens faster shows no slate.
constexpr Time kOpeningTimeout = kSecond;

std::string Capitalised(std::string text) {
  if (!text.empty()) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  }
  return text;
}

}  // namespace

ChannelPresenter::ChannelPresenter(const ChannelSettings& settings, WindowFeed::Pins pins,
                                   ChannelObserver* observer)
    : settings_(settings),
      observer_(observer),
      alarms_(settings_.channel, observer),
      life_(alarms_.controls().hold, 0),
      feed_(settings_, pins) {}

void ChannelPresenter::Begin(Time now, Handover before) {
  kept_ = std::move(before.kept);
  feed_.Begin(now, before.sent, before.size);
  life_ = ChannelLife(alarms_.controls().hold, now);
  now_ = now;
  looked_ = now;
  looks_.clear();
  pristine_.clear();
  slateText_.clear();
  slate_.clear();
  hasVideo_ = true;
  hasAudio_ = false;
  alarms_.Begin();
}

void ChannelPresenter::End() {
  kept_ = nullptr;
}

ChannelPresenter::Handover ChannelPresenter::HandOver() {
  return {feed_.sent(), std::exchange(kept_, nullptr), feed_.size().size()};
}

void ChannelPresenter::KeepAnchored() {
  if (!feed_.needsAnchor()) {
    return;
  }
  const Time time = feed_.anchorTime();
  while (const auto change = feed_.size().Next(time)) {
    Resize(*change);
  }
  BYTE* pixels = nullptr;
  const ComPtr<IMediaSample> shown = Shown(time, time + 1);
  if (shown && SUCCEEDED(shown->GetPointer(&pixels))) {
    feed_.Anchor(pixels, time, now_);
  }
}

void ChannelPresenter::FollowSize(Time time) {
  KeepAnchored();
  while (const auto change = feed_.size().Next(time)) {
    ChangeSize(*change);
  }
}

// The composer must not find a frame of the wrong size nearest to a composed frame. So a frame of
// the former size is sent for the last composed frame that has this size, and one of the new size
// for the first.
void ChannelPresenter::ChangeSize(const WindowSchedule::Resize& change) {
  const Time last = change.at - FrameDuration(settings_.canvas.frameRate);
  const bool repeats = feed_.frames().begun();
  if (repeats && feed_.frames().Takes(last)) {
    Repeat(last);
  }
  Resize(change);
  if (repeats && feed_.frames().Takes(change.at)) {
    Repeat(change.at);
  }
}

void ChannelPresenter::Resize(const WindowSchedule::Resize& change) {
  const WindowSize former = feed_.size().Change(change);
  slate_.clear();
  slateText_.clear();
  if (kept_ != nullptr && !pristine_.empty()) {
    // The composer still has that copy, with its caption.
    const ComPtr<IMediaSample> clean = feed_.CopyOf(
        pristine_.data(), static_cast<LONG>(pristine_.size()), change.at, change.at + 1);
    kept_ = clean ? clean : kept_;
  }
  pristine_.clear();
  kept_ = kept_ != nullptr ? feed_.size().Resized(kept_.Get(), former) : nullptr;
}

void ChannelPresenter::SetControls(const ChannelControls& controls) {
  life_.SetHold(controls.hold);
  alarms_.SetControls(controls, now_);
  NoteLook();
}

void ChannelPresenter::Report(bool changed) {
  if (changed) {
    observer_->ChannelChanged(settings_.channel.name, life_.status());
  }
}

// State and alarms that follow from the time alone.
void ChannelPresenter::Watch(Time now) {
  now_ = std::max(now_, now);
  if (settings_.decodeSeat && settings_.decodeSeat->waits()) {
    life_.CameLate(now_);
  }
  Report(life_.Tick(now_));
  if (life_.status().state == ChannelState::kLive) {
    alarms_.monitor().Tick(now_);
  } else {
    alarms_.monitor().Lost(life_.status().since, now_);
  }
  alarms_.ReportAudio(now_);
  NoteLook();
}

void ChannelPresenter::OnSourceEvent(const SourceEvent& event, Time now) {
  now_ = std::max(now_, now);
  if (event.kind == SourceEvent::Kind::kOpened) {
    hasVideo_ = event.hasVideo;
    hasAudio_ = event.hasAudio;
    noVideoReason_ = event.reason;
    alarms_.SetAudioReason(event.audioReason);
    alarms_.monitor().Opened(event.audioAbsence, now_);
    return;
  }
  if (event.kind == SourceEvent::Kind::kDecoding) {
    // The frames between keyframes are decoded again only after the next keyframe.
    awaitsFrames_ = !event.keyframesOnly;
    keyframesOnly_ = event.keyframesOnly;
    if (keyframesOnly_) {
      life_.Expect(kKeyframeDuration);
    }
    NoteLook();
    return;
  }
  if (event.kind == SourceEvent::Kind::kAudio) {
    alarms_.SetAudioReason(event.audioReason);
    alarms_.monitor().Decodable(event.audioAbsence == AudioAbsence::kNone);
    return;
  }
  if (event.kind == SourceEvent::Kind::kRenamed) {
    return;
  }
  Report(life_.Failed(event.reason, now_));
  NoteLook();
}

void ChannelPresenter::Show(const ReadyFrame& ready, Time start, Time duration) {
  duration = std::max<Time>(duration, 1);
  now_ = std::max(now_, start);
  FollowSize(start);
  // The frame may have been made before the size of the window changed.
  const bool hasSize = ready.size == feed_.size().size() || ready.size.width == 0;
  const ComPtr<IMediaSample> frame =
      hasSize ? ready.sample : feed_.size().Resized(ready.sample.Get(), ready.size);
  if (!feed_.frames().Takes(start) || !frame) {
    life_.CameLate(now_);
    return;
  }
  if (awaitsFrames_ && start - shownAt_ < kFrequent) {
    awaitsFrames_ = false;
    life_.Expect(0);
  }
  shownAt_ = start;
  Report(life_.Shown(now_, duration));
  alarms_.monitor().OnFrame(ready.condition.black, ready.condition.still, now_);
  alarms_.ReportAudio(now_);
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
  KeepAnchored();
}

void ChannelPresenter::Show(const ReadyLevels& levels, Time start, Time duration) {
  now_ = std::max(now_, start);
  if (!hasVideo_) {
    Report(life_.Shown(now_, duration));
    alarms_.monitor().Found(now_);
  }
  alarms_.monitor().Audio(levels.loudest, now_, now_ - start);
  alarms_.ReportAudio(now_);
  SendLevels(start, duration, levels.levels);
}

Time ChannelPresenter::nextTick() const {
  Time next = looked_ + kLookEvery;
  if (const std::optional<Time> change = feed_.size().nextChange()) {
    next = std::min(next, *change);
  }
  if (feed_.frames().begun()) {
    next = std::min({next, feed_.frames().nextRepeat(), feed_.levels().nextRepeat()});
  }
  return std::max(next, now_);
}

void ChannelPresenter::Tick(Time now) {
  FollowSize(now);
  if (now - looked_ >= kLookEvery) {
    looked_ = now;
    Watch(now);
    if (!feed_.frames().begun()) {
      Repeat(now_);
    }
  }
  now_ = std::max(now_, now);
  if (feed_.frames().begun() && feed_.frames().nextRepeat() <= now_) {
    Repeat(feed_.frames().RepeatAt(now_));
  }
  if (feed_.frames().begun() && feed_.levels().nextRepeat() <= now_) {
    const Time start = feed_.levels().RepeatAt(now_);
    SendLevels(start, feed_.levels().step(), AudioLevels{});
  }
  KeepAnchored();
}

bool ChannelPresenter::showsSlate() const {
  switch (life_.status().state) {
    case ChannelState::kOpening:
      return now_ - life_.status().since >= kOpeningTimeout ||
             (kept_ == nullptr && feed_.frames().begun());
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
  std::string text = alarms_.Caption(settings_.timeText);
  if (keyframesOnly_) {
    AddToCaption(text, "KEYFRAMES ONLY");
  }
  return text;
}

WindowPixels ChannelPresenter::Window(BYTE* pixels) const {
  const WindowSize& size = feed_.size().size();
  return {{pixels, static_cast<std::size_t>(frameBytes())}, size.width, size.height};
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
  const Time stop = start + feed_.frames().step();
  if (const ComPtr<IMediaSample> sample = Shown(start, stop)) {
    SendFrame(sample.Get(), start, stop);
  }
}

ComPtr<IMediaSample> ChannelPresenter::Shown(Time start, Time stop) {
  const Look& look = LookAt(start);
  if (look.slate || (kept_ == nullptr && feed_.frames().begun())) {
    if (slate_.empty() || look.text != slateText_) {
      slate_.resize(static_cast<std::size_t>(frameBytes()));
      text_.DrawSlate(Window(slate_.data()), look.text);
      slateText_ = look.text;
    }
    return CopyOf(slate_.data(), {}, start, stop);
  }
  BYTE* pixels = nullptr;
  if (kept_ == nullptr || FAILED(kept_->GetPointer(&pixels))) {
    return nullptr;
  }
  return CopyOf(pristine_.empty() ? pixels : pristine_.data(), look.text, start, stop);
}

ComPtr<IMediaSample> ChannelPresenter::CopyOf(const std::uint8_t* pixels,
                                              const std::string& caption, Time start, Time stop) {
  ComPtr<IMediaSample> sample = feed_.CopyOf(pixels, frameBytes(), start, stop);
  BYTE* copied = nullptr;
  if (!sample || FAILED(sample->GetPointer(&copied))) {
    return nullptr;
  }
  sample->SetSyncPoint(TRUE);
  if (!caption.empty()) {
    text_.DrawCaption(Window(copied), caption);
  }
  return sample;
}

void ChannelPresenter::SendFrame(IMediaSample* sample, Time start, Time stop) {
  feed_.SendFrame(sample, start, stop, now_);
  feed_.SendAlarm(VideoAlarmRecord{alarms_.hasVideoAlarm(), 0}, start, stop);
  // The alarms of a channel show only where it has a meter.
  if (!hasAudio_) {
    SendLevels(start, stop - start, AudioLevels{});
  }
}

void ChannelPresenter::SendLevels(Time start, Time duration, const AudioLevels& levels) {
  AudioAlarmRecord record;
  record.alarmEnabled = true;
  record.condition1 = alarms_.isUrgent(AlarmKind::kSilence);
  record.condition2 = alarms_.isUrgent(AlarmKind::kClipping);
  record.metersEnabled = alarms_.controls().hasMeter;
  record.levels = levels;
  feed_.SendLevels(record, start, start + duration);
}

}  // namespace host
