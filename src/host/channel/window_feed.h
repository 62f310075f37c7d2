// Feeds one channel's window in the composer: when to repeat a frame (WindowFill), in which size
// (WindowSizeFollower), and how it is sent (WindowFeed).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
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
// show onwards. A frame that finds fewer than two waiting re-anchors the channel, whatever its own
// time is, and a record (levels, alarms) is shown only while a later one waits. So where a source's
// frames are rare, late or missing, repeats are sent, but only just before the delay is over: until
// then the real ones may still arrive.
//
// For the frames or the records of one channel, whose times only grow. No lock: one thread.
class WindowFill {
 public:
  // enough: how many have to wait in the composer: 1 or 2. delay: of the wall.
  WindowFill(int enough, Time delay) : enough_(enough), delay_(delay), step_(StepOf(delay)) {}

  // How long before it is needed a repeat is sent, and its distance from the latest frame.
  static Time StepOf(Time delay) { return std::min(kSecond / 10, delay / 5); }
  Time step() const { return step_; }

  void Clear() { latest_ = former_ = kNone; }
  void Sent(Time time) {
    former_ = latest_;
    latest_ = time;
  }
  // Of what was sent last.
  Time latest() const { return latest_; }
  // Something has been sent.
  bool begun() const { return latest_ != kNone; }
  // Whether something of this time can still be sent.
  bool Takes(Time time) const { return time > latest_; }
  // When a repeat has to be sent, unless something else is sent before.
  Time nextRepeat() const { return Enough() + delay_ - step_; }
  // The time of that repeat.
  Time RepeatAt(Time now) const { return std::max(latest_, now - delay_) + step_; }
  // Whether the composer has fewer than enough at its present time.
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

// Follows the size of the channel's window in the WindowSchedule, change by change; the owner sends
// what each change needs. No lock: the channel's streaming thread only.
class WindowSizeFollower {
 public:
  // settings and video outlive it.
  WindowSizeFollower(const ChannelSettings& settings, FeedPin& video)
      : settings_(settings), video_(video) {}

  // size: of what the composer has already; width 0: that of the schedule.
  void Begin(Time now, const WindowSize& size);
  // The next change up to this time; none when all have been made. A hidden window changes its size
  // at once.
  std::optional<WindowSchedule::Resize> Next(Time time);
  // Frames have the new size from now on. Returns the former one.
  WindowSize Change(const WindowSchedule::Resize& change);
  // When the next change of the schedule is due.
  std::optional<Time> nextChange() const;

  const WindowSize& size() const { return size_; }
  LONG frameBytes() const { return FrameBytes(size_.width, size_.height); }
  // Whether frames of this time carry their type: the composer reads a type only from a frame that
  // it considers.
  bool needsType(Time now) const { return now < typedUntil_; }
  // A frame of another size, scaled to this one; null without a buffer, or when scaling fails.
  ComPtr<IMediaSample> Resized(IMediaSample* sample, const WindowSize& size);

 private:
  void UseType(Time from);

  const ChannelSettings& settings_;
  FeedPin& video_;
  WindowSize size_;
  Time sizedAt_ = 0;     // time up to which the changes were made
  Time typedUntil_ = 0;  // frames carry their type until then
  FrameScaler scaler_;
};

// Sends frames and alarm records of one channel into the composer, anchors the channel there, and
// remembers what the composer has. Times of each kind only grow: what WindowFill::Takes refuses
// must not be sent. No lock: the channel's streaming thread only.
//
// A thread that was kept from running sends too late: the composer has shown the last frames
// meanwhile, and takes the next one for an anchor. So the owner anchors the channel again as soon
// as needsAnchor says so, before it sends anything else.
class WindowFeed {
 public:
  struct Pins {
    FeedPin& video;
    FeedPin& audioAlarm;
    FeedPin& videoAlarm;
  };
  // What the composer has of the channel; for the next channel in the same window.
  struct Sent {
    WindowFill frames;
    WindowFill levels;
    bool isAnchored = false;
  };

  // settings outlive it.
  WindowFeed(const ChannelSettings& settings, Pins pins);

  // before: of the former channel of the window. size: see WindowSizeFollower.
  void Begin(Time now, const std::optional<Sent>& before, const WindowSize& size);
  Sent sent() const { return {frames_, levels_, isAnchored_}; }
  const WindowFill& frames() const { return frames_; }
  const WindowFill& levels() const { return levels_; }
  WindowSizeFollower& size() { return size_; }
  const WindowSizeFollower& size() const { return size_; }

  // A buffer of the video pin with a copy of these pixels; null when no buffer is free.
  ComPtr<IMediaSample> CopyOf(const std::uint8_t* pixels, LONG bytes, Time start, Time stop);
  // Whether the composer shows the channel at other times than the wall's, or may do so with the
  // next frame.
  bool needsAnchor();
  // The time that is shown next: the anchor has to have the size that the window has then.
  Time anchorTime() const;
  // pixels: of a frame of that time, in the size of the window. now: the latest time of the
  // channel.
  void Anchor(const BYTE* pixels, Time time, Time now);
  // The first frame anchors the channel at the composer's present time; it is dropped if that is
  // later than its own.
  void SendFrame(IMediaSample* sample, Time start, Time stop, Time now);
  void SendAlarm(const VideoAlarmRecord& record, Time start, Time stop);
  // Drops the record when a later one was sent: an earlier one would make the composer drop those
  // that wait.
  void SendLevels(const AudioAlarmRecord& record, Time start, Time stop);

 private:
  void AnchorAt(std::optional<Time> time, const BYTE* pixels, Time now);
  void NoteSent(Time time);
  // As many frames wait in the composer as it takes without releasing any.
  bool isFull();
  void Deliver(IMediaSample* sample, Time now);

  const ChannelSettings& settings_;
  const Pins pins_;
  WindowFill frames_;
  WindowFill levels_;
  WindowSizeFollower size_;  // of what is sent
  bool isAnchored_ = false;
  std::deque<Time> waiting_;  // in the composer, which stops when the machine does
};

}  // namespace host
