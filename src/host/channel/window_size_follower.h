// WindowSizeFollower: the size of the frames that a channel sends.
#pragma once

#include <optional>

#include "host/channel/channel_settings.h"
#include "host/channel/video/frame_scaler.h"
#include "host/channel/window_schedule.h"
#include "host/feed/feed_pin.h"
#include "host/units.h"

namespace host {

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

}  // namespace host
