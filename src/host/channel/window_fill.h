// WindowFill: what waits in the composer for one channel, as far as its host can know.
#pragma once

#include <algorithm>
#include <limits>

#include "host/units.h"

namespace host {

// The composer shows a frame one second after its time and keeps the frames from the one on show
// onwards. With every frame that finds fewer than two waiting it sets the channel's time again,
// whatever moment that frame belongs to, and it shows a record (levels, alarms) only while a later
// one waits. So a source whose frames are rare, late or gone is filled up with repeats, just before
// the composer's second runs out and no earlier: until then the real ones may still come.
//
// Of frames or records of one channel, whose times only grow. No lock: one thread.
class WindowFill {
 public:
  static constexpr Time kLatency = kSecond;
  // A repeat is sent so long before it is needed, and this far after the latest one.
  static constexpr Time kStep = kSecond / 10;

  // enough: how many have to wait in the composer, 1 or 2.
  explicit WindowFill(int enough) : enough_(enough) {}

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
  Time nextRepeat() const { return Enough() + kLatency - kStep; }
  // The time of that repeat.
  Time RepeatAt(Time now) const { return std::max(latest_, now - kLatency) + kStep; }
  // At the composer's present time it has fewer than enough.
  bool IsDry(Time present) const { return Enough() < present - kLatency; }

 private:
  static constexpr Time kNone = std::numeric_limits<Time>::min() / 2;

  Time Enough() const { return enough_ == 1 ? latest_ : former_; }

  int enough_;
  Time latest_ = kNone;
  Time former_ = kNone;
};

}  // namespace host
