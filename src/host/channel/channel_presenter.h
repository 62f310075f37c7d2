// ChannelPresenter: what a channel shows, whatever its source does.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/channel/alarm_monitor.h"
#include "host/channel/channel_controls.h"
#include "host/channel/channel_life.h"
#include "host/channel/channel_observer.h"
#include "host/channel/channel_queue.h"
#include "host/channel/channel_settings.h"
#include "host/channel/slate/window_text.h"
#include "host/channel/video/frame_scaler.h"
#include "host/channel/window_schedule.h"
#include "host/feed/feed_pin.h"
#include "host/units.h"

namespace host {

// The composer shows a frame the wall's delay after its time and keeps the frames from the one on
// show onwards. With every frame that finds fewer than two waiting it sets the channel's time
// again, whatever moment that frame belongs to, and it shows a record (levels, alarms) only while a
// later one waits. So a source whose frames are rare, late or gone is filled up with repeats, just
// before the delay is over and no earlier: until then the real ones may still come.
//
// Of frames or records of one channel, whose times only grow. No lock: one thread.
class WindowFill {
 public:
  // enough: how many have to wait in the composer, 1 or 2. delay: of the wall.
  WindowFill(int enough, Time delay) : enough_(enough), delay_(delay), step_(StepOf(delay)) {}

  // How long before it is needed a repeat is sent, and how far after the latest one it lies.
  static Time StepOf(Time delay) { return std::min(kSecond / 10, delay / 5); }
  Time step() const { return step_; }

  void Clear() { latest_ = former_ = kNone; }
  void Sent(Time time) {
    former_ = latest_;
    latest_ = time;
  }
  // Something was sent.
  bool begun() const { return latest_ != kNone; }
  // Whether anything of that time can still be sent.
  bool Takes(Time time) const { return time > latest_; }
  // When a repeat has to be sent, unless something else is sent before.
  Time nextRepeat() const { return Enough() + delay_ - step_; }
  // The time of that repeat.
  Time RepeatAt(Time now) const { return std::max(latest_, now - delay_) + step_; }
  // At the composer's present time it has fewer than enough.
  bool IsDry(Time present) const { return Enough() < present - delay_; }

 private:
  static constexpr Time kNone = std::numeric_limits<Time>::min() / 2;

  Time Enough() const { return enough_ == 1 ? latest_ : former_; }

  int enough_;
  Time delay_;
  Time step_;
  Time latest_ = kNone;
  Time former_ = kNone;
};

// Feeds the composer with the frames and alarm records of one channel without a gap:
//
//   state     in the window                                     records
//   opening   nothing; a slate after a second                   alarms, a silent meter
//   live      the source's frames, repeated when they are     levels and alarms
//             rare; a caption names the alarms that are raised
//   held      the last frame, repeated; caption               alarms, a silent meter
//   lost      a slate: channel, reason, since when              alarms, a silent meter
//
// What is sent has ever later times: a frame or level that comes after a later one was sent is
// dropped (WindowFill says when that is).
//
// Time is that of what is delivered and of the ticks, so a rendered wall shows the same every time.
// Owned by the channel's source; streaming thread only.
class ChannelPresenter {
 public:
  struct Pins {
    FeedPin& video;
    FeedPin& audioAlarm;
    FeedPin& videoAlarm;
  };

  // settings and observer outlive the presenter.
  ChannelPresenter(const ChannelSettings& settings, Pins pins, ChannelObserver* observer);

  // What the composer has of a channel and its window shows, for the next one in the same window.
  struct Handover {
    std::optional<WindowFill> frames{};
    std::optional<WindowFill> levels{};
    ComPtr<IMediaSample> kept{};
    WindowSize size{};
  };

  // Before the first item. now: the wall's time. before: of the channel that the window showed; its
  // last frame stays until there is something else to show.
  void Begin(Time now, Handover before);
  void Begin(Time now) { Begin(now, Handover()); }
  // After End.
  Handover HandOver();
  // What operators changed. Before Begin, or between two items.
  void SetControls(const ChannelControls& controls);
  // start, duration: of the item, on the wall's clock.
  void Show(const ReadyFrame& picture, Time start, Time duration);
  void Show(const ReadyLevels& levels, Time start, Time duration);
  void OnSourceEvent(const SourceEvent& event, Time now);
  // When Tick is wanted, unless something is delivered before.
  Time nextTick() const;
  void Tick(Time now);
  // After the last item: releases the frame that it keeps.
  void End();
  // Frames of the source that came too late to be shown.
  std::uint64_t lateFrames() const { return late_; }

 private:
  void Watch(Time now);
  void Report(bool changed);
  // What a repeat shows: a slate with its text, or the last frame with a caption, which may be
  // empty.
  struct Look {
    bool slate = false;
    std::string text;
    bool operator==(const Look&) const = default;
  };

  // Is raised, and neither masked nor acknowledged.
  bool isUrgent(AlarmKind kind) const;
  bool isMasked() const;
  bool hasPictureAlarm() const {
    return isUrgent(AlarmKind::kLoss) || isUrgent(AlarmKind::kBlack) ||
           isUrgent(AlarmKind::kFreeze);
  }
  void ReportAudio();
  bool showsSlate() const;
  std::string SlateText() const;
  std::string CaptionText() const;
  std::string AudioCaption() const;
  void NoteLook();
  const Look& LookAt(Time time);
  void Repeat(Time start);
  void SendFrame(IMediaSample* sample, Time start, Time stop);
  void SendCopy(const std::uint8_t* pixels, const std::string& caption, Time start, Time stop);
  // False when the frame that was to be sent at start has been anchored over.
  bool AnchorClock(const BYTE* pixels, Time start);
  void Deliver(IMediaSample* sample);
  void SendLevels(Time start, Time duration, const AudioLevels& levels);
  // Sizes that have changed by that time.
  void FollowSize(Time time);
  void ChangeSize(const WindowSchedule::Resize& change);
  // In the size that the window has now; null when there is no buffer or it cannot be done.
  ComPtr<IMediaSample> Resized(IMediaSample* sample, const WindowSize& size);
  LONG frameBytes() const { return FrameBytes(size_.width, size_.height); }  // of the window
  WindowPixels Window(BYTE* pixels) const;

  const ChannelSettings& settings_;
  const Pins pins_;
  ChannelObserver* const observer_;

  ChannelControls controls_;
  std::array<bool, kAlarmKinds> acknowledged_{};  // while the alarm is raised
  ChannelLife life_;
  AlarmMonitor alarms_;
  bool hasVideo_ = true;  // the source has; until it is known, it is taken to have
  bool hasAudio_ = false;
  bool awaitsFrames_ = false;   // between keyframes
  Time shownAt_ = 0;            // the latest frame of the source
  bool keyframesOnly_ = false;  // of the source; it is to be seen that it does not move by itself
  std::string noVideoReason_;
  std::string audioReason_;  // why there is no audio
  AudioStatus audio_;
  Time now_ = 0;  // latest time that was seen
  WindowFill frames_;
  WindowFill levels_;
  Time looked_ = 0;         // Tick looked at what follows from the time alone
  std::uint64_t late_ = 0;  // frames of the source that came too late to be shown

  // Repeats belong to a time that is almost the delay ago: from when on the channel looked how.
  std::deque<std::pair<Time, Look>> looks_;

  WindowSize size_;      // of what is sent
  Time sizedAt_ = 0;     // up to that time of the wall
  Time typedUntil_ = 0;  // frames carry their type after a change
  FrameScaler scaler_;
  WindowText text_;
  ComPtr<IMediaSample> kept_;           // latest frame of the source as it was sent
  std::vector<std::uint8_t> pristine_;  // the same without its caption, if it has one
  std::vector<std::uint8_t> slate_;
  std::string slateText_;  // of slate_
};

}  // namespace host
