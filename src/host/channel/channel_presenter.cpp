#include "host/channel/channel_presenter.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "host/channel/alarm_record.h"
#include "host/graph/picture_type.h"

namespace host {
namespace {

// Five in the second for which the composer keeps pictures waiting.
constexpr Time kRepeatAfter = kSecond / 5;
// The composer's queue has run dry when nothing was sent for so long.
constexpr Time kFixAfterGap = 8 * kSecond / 10;
// A source that opens at once never shows a slate.
constexpr Time kOpeningPatience = kSecond;

const char* CaptionOf(AlarmKind kind) {
  switch (kind) {
    case AlarmKind::kLoss:
      return "NO PICTURE";
    case AlarmKind::kBlack:
      return "BLACK";
    case AlarmKind::kFreeze:
      return "FROZEN";
    case AlarmKind::kSilence:
      return "SILENT";
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

ChannelPresenter::ChannelPresenter(Settings settings, Pins pins, ChannelObserver* observer)
    : settings_(std::move(settings)),
      pins_(pins),
      observer_(observer),
      life_(settings_.hold, 0),
      alarms_(settings_.alarms, [this](const AlarmMonitor::Change& change) {
        observer_->AlarmChanged(settings_.name, change);
      }) {}

void ChannelPresenter::Begin(Time now) {
  life_ = ChannelLife(settings_.hold, now);
  now_ = now;
  idleSince_ = now;
  lastSent_.reset();
  lastReal_.reset();
  lastLevels_.reset();
  hasPictures_ = true;
  hasSound_ = false;
}

void ChannelPresenter::End() {
  kept_ = nullptr;
}

void ChannelPresenter::Report(bool changed) {
  if (changed) {
    observer_->ChannelChanged(settings_.name, life_.status());
  }
}

// What follows from the time alone.
void ChannelPresenter::Watch(Time now) {
  now_ = std::max(now_, now);
  Report(life_.Tick(now_));
  if (life_.status().state == ChannelState::kLive) {
    alarms_.Tick(now_);
  } else {
    alarms_.Lost(life_.status().since, now_);
  }
}

void ChannelPresenter::Hear(const SourceNews& news, Time now) {
  now_ = std::max(now_, now);
  if (news.kind == SourceNews::Kind::kOpened) {
    hasPictures_ = news.hasPictures;
    hasSound_ = news.hasSound;
    noPictureReason_ = news.reason;
    alarms_.Opened(news.hasSound, now_);
    return;
  }
  Report(life_.Failed(news.reason, now_));
  if (showsSlate()) {
    Repeat(now_);
  }
}

void ChannelPresenter::Show(const ReadyPicture& picture) {
  REFERENCE_TIME start = 0;
  REFERENCE_TIME stop = 0;
  picture.sample->GetTime(&start, &stop);
  const Time duration = std::max<Time>(stop - start, 1);
  now_ = std::max(now_, start);
  Report(life_.Shown(now_, duration, now_ - start));
  alarms_.Picture(picture.condition.black, picture.condition.still, now_);
  if (lastSent_.has_value() && start <= *lastSent_) {
    if (lastReal_.has_value() && *lastSent_ - *lastReal_ < kRepeatAfter) {
      return;
    }
    start = *lastSent_ + 1;
    stop = start + duration;
    picture.sample->SetTime(&start, &stop);
  }
  BYTE* pixels = nullptr;
  picture.sample->GetPointer(&pixels);
  const std::string caption = CaptionText();
  pristine_.clear();
  if (!caption.empty()) {
    pristine_.assign(pixels, pixels + PictureSize(settings_.width, settings_.height));
    text_.DrawCaption(Window(pixels), caption);
  }
  const bool isFirst = !lastReal_.has_value();
  kept_ = picture.sample;
  lastReal_ = start;
  SendPicture(picture.sample.Get(), start, stop);
  if (isFirst && settings_.pictureSent) {
    settings_.pictureSent();
  }
}

void ChannelPresenter::Show(const ReadyLevels& levels) {
  now_ = std::max(now_, levels.start);
  if (!hasPictures_) {
    Report(life_.Shown(now_, levels.duration));
    alarms_.Found(now_);
  }
  alarms_.Sound(levels.loudest, now_);
  SendLevels(levels.start, levels.duration, levels.levels);
}

Time ChannelPresenter::nextTick() const {
  return std::max(lastSent_.value_or(idleSince_), idleSince_) + kRepeatAfter;
}

void ChannelPresenter::Tick(Time now) {
  idleSince_ = now;
  Watch(now);
  Repeat(now_);
}

bool ChannelPresenter::showsSlate() const {
  switch (life_.status().state) {
    case ChannelState::kOpening:
      return now_ - life_.status().since >= kOpeningPatience;
    case ChannelState::kLive:
      return !hasPictures_;
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
      return settings_.name + "\nopening";
    case ChannelState::kLive:
      return settings_.name + "\nSound only: " + noPictureReason_;
    case ChannelState::kHeld:
    case ChannelState::kLost:
      break;
  }
  return settings_.name + "\n" + Capitalised(status.reason) + "\nsince " +
         settings_.timeText(status.since);
}

std::string ChannelPresenter::CaptionText() const {
  std::string text;
  for (const AlarmKind kind : kAllAlarms) {
    if (alarms_.raised(kind)) {
      text += (text.empty() ? "" : " \u00b7 ") + std::string(CaptionOf(kind)) + " since " +
              settings_.timeText(alarms_.raisedSince(kind));
    }
  }
  return text;
}

WindowPicture ChannelPresenter::Window(BYTE* pixels) const {
  return {{pixels, static_cast<std::size_t>(PictureSize(settings_.width, settings_.height))},
          settings_.width,
          settings_.height};
}

// Sends again what the window shows.
void ChannelPresenter::Repeat(Time now) {
  const Time start = lastSent_.has_value() ? std::max(now, *lastSent_ + 1) : now;
  const Time stop = start + kRepeatAfter;
  if (showsSlate()) {
    const std::string text = SlateText();
    if (slate_.empty() || text != slateText_) {
      slate_.resize(static_cast<std::size_t>(PictureSize(settings_.width, settings_.height)));
      text_.DrawSlate(Window(slate_.data()), text);
      slateText_ = text;
    }
    SendCopy(slate_.data(), {}, start, stop);
    return;
  }
  BYTE* pixels = nullptr;
  if (kept_ != nullptr && SUCCEEDED(kept_->GetPointer(&pixels))) {
    SendCopy(pristine_.empty() ? pixels : pristine_.data(), CaptionText(), start, stop);
  }
}

void ChannelPresenter::SendCopy(const std::uint8_t* pixels, const std::string& caption, Time start,
                                Time stop) {
  const ComPtr<IMediaSample> sample = pins_.video.NewSample(start, stop, false);
  BYTE* to = nullptr;
  if (!sample || FAILED(sample->GetPointer(&to))) {
    return;
  }
  const LONG size = PictureSize(settings_.width, settings_.height);
  std::memcpy(to, pixels, static_cast<std::size_t>(size));
  sample->SetActualDataLength(size);
  sample->SetSyncPoint(TRUE);
  if (!caption.empty()) {
    text_.DrawCaption(Window(to), caption);
  }
  SendPicture(sample.Get(), start, stop);
}

void ChannelPresenter::SendPicture(IMediaSample* sample, Time start, Time stop) {
  BYTE* pixels = nullptr;
  sample->GetPointer(&pixels);
  FixClock(pixels, start);
  pins_.video.Deliver(sample);
  lastSent_ = start;
  pins_.videoAlarm.Send(ToWire(VideoAlarmRecord{alarms_.pictureAlarm(), 0}), start, stop);
  // The alarms of a channel show only where it has a meter.
  if (!hasSound_ || !lastLevels_.has_value() || start - *lastLevels_ >= kRepeatAfter) {
    SendLevels(start, stop - start, AudioLevels{});
  }
}

// The composer fixes a channel's time to its own with every picture that finds fewer than two
// others waiting, whatever moment that picture belongs to. Copies of it that carry the composer's
// present time go first, so that the fix is exact and the channel's times are the wall's.
void ChannelPresenter::FixClock(const BYTE* pixels, Time start) {
  int copies = 0;
  if (!lastSent_.has_value()) {
    copies = 2;
  } else if (start - *lastSent_ >= kFixAfterGap) {
    copies = 1;  // the last picture from before the gap still waits
    if (settings_.logger != nullptr) {
      settings_.logger->IncrementResync();
    }
  }
  const Time present = settings_.latestFrame ? settings_.latestFrame() : 0;
  const LONG size = PictureSize(settings_.width, settings_.height);
  for (; copies > 0; --copies) {
    const ComPtr<IMediaSample> copy = pins_.video.NewSample(present, present + 1, false);
    BYTE* to = nullptr;
    if (!copy || FAILED(copy->GetPointer(&to))) {
      return;
    }
    std::memcpy(to, pixels, static_cast<std::size_t>(size));
    copy->SetActualDataLength(size);
    pins_.video.Deliver(copy.Get());
  }
}

void ChannelPresenter::SendLevels(Time start, Time duration, const AudioLevels& levels) {
  if (lastLevels_.has_value() && start <= *lastLevels_) {
    return;  // an earlier record would make the composer forget those that wait
  }
  lastLevels_ = start;
  AudioAlarmRecord record;
  record.alarmEnabled = true;
  record.condition1 = alarms_.raised(AlarmKind::kSilence);
  record.condition2 = alarms_.raised(AlarmKind::kClipping);
  record.metersEnabled = settings_.meter;
  record.levels = levels;
  pins_.audioAlarm.Send(ToWire(record), start, start + duration);
}

}  // namespace host
