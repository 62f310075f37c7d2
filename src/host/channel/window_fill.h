// WindowFill: when what a window shows has to be repeated.
#pragma once

#include <algorithm>
#include <limits>

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

}  // namespace host
