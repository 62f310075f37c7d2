// What the composer gets of one channel's window: when it has to be repeated (WindowFill), in which
// size (WindowSizeFollower), and how it is sent (WindowFeed).
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

#include "host/channel/channel_settings.h"
#include "host/channel/video/scalers.h"
#include "host/channel/window_schedule.h"
#include "host/feed/alarm_record.h"
#include "host/feed/feed_pin.h"
#include "host/units.h"
#include "platform/com/com.h"
#include "platform/dshow/media.h"

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

// Follows the plan of the channel's window, change by change: the owner sends what each of them
// needs. No lock: the channel's streaming thread only.
class WindowSizeFollower {
 public:
  // settings and video outlive it.
  WindowSizeFollower(const ChannelSettings& settings, FeedPin& video)
      : settings_(settings), video_(video) {}

  // size: of what the composer has already; without a width, that of the plan.
  void Begin(Time now, const WindowSize& size);
  // The next change up to that time; none when all have been made. A hidden window takes another
  // size at once.
  std::optional<WindowSchedule::Resize> Next(Time time);
  // Frames have that size from now on. Returns the former one.
  WindowSize Change(const WindowSchedule::Resize& change);
  // When the plan has the next one.
  std::optional<Time> nextChange() const;

  const WindowSize& size() const { return size_; }
  LONG frameBytes() const { return FrameBytes(size_.width, size_.height); }
  // Whether frames of that time carry their type: the composer looks at one only while it considers
  // a frame that carries it.
  bool needsType(Time now) const { return now < typedUntil_; }
  // A frame of another size in this one; null when there is no buffer or it cannot be done.
  ComPtr<IMediaSample> Resized(IMediaSample* sample, const WindowSize& size);

 private:
  void UseType(Time from);

  const ChannelSettings& settings_;
  FeedPin& video_;
  WindowSize size_;
  Time sizedAt_ = 0;     // up to that time of the wall
  Time typedUntil_ = 0;  // frames carry their type after a change
  FrameScaler scaler_;
};

// Sends frames and alarm records of one channel into the composer, anchors the channel's time in
// it, and remembers what the composer has. Times of each kind only grow: what Takes refuses must
// not be sent. No lock: the channel's streaming thread only.
class WindowFeed {
 public:
  struct Pins {
    FeedPin& video;
    FeedPin& audioAlarm;
    FeedPin& videoAlarm;
  };
  // What the composer has of the channel, for the next one in the same window.
  struct Sent {
    WindowFill frames;
    WindowFill levels;
  };

  // settings outlive it.
  WindowFeed(const ChannelSettings& settings, Pins pins);

  // before: of the channel that the window showed. size: see WindowSizeFollower.
  void Begin(Time now, const std::optional<Sent>& before, const WindowSize& size);
  Sent sent() const { return {frames_, levels_}; }
  const WindowFill& frames() const { return frames_; }
  const WindowFill& levels() const { return levels_; }
  WindowSizeFollower& size() { return size_; }
  const WindowSizeFollower& size() const { return size_; }

  // A buffer of the video pin with those pixels, of the window's size or of what is given, in
  // bytes; null when there is none.
  ComPtr<IMediaSample> CopyOf(const std::uint8_t* pixels, LONG bytes, Time start, Time stop);
  // now: the latest time that the channel has seen. False when the frame has been anchored over.
  bool SendFrame(IMediaSample* sample, Time start, Time stop, Time now);
  void SendAlarm(const VideoAlarmRecord& record, Time start, Time stop);
  // Nothing when a later record was sent: an earlier one would make the composer forget those that
  // wait.
  void SendLevels(const AudioAlarmRecord& record, Time start, Time stop);

 private:
  bool AnchorClock(const BYTE* pixels, Time start, Time now);
  void Deliver(IMediaSample* sample, Time now);

  const ChannelSettings& settings_;
  const Pins pins_;
  WindowFill frames_;
  WindowFill levels_;
  WindowSizeFollower size_;  // of what is sent
};

}  // namespace host
