// Decides when a condition becomes an alarm, and when the alarm is over.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <optional>

#include "host/units.h"

namespace host {

// A condition must hold without a break for the time to set before the alarm is raised, and be gone
// without a break for the time to clear before it is over. Time comes in from outside and never
// runs here. Between two updates the condition is taken to be what the earlier one said. No lock:
// one thread.
class AlarmTimer {
 public:
  AlarmTimer() = default;
  AlarmTimer(Time setAfter, Time clearAfter) : setAfter_(setAfter), clearAfter_(clearAfter) {}

  // What the condition is at a time; times never decrease. The new state when it changes.
  std::optional<bool> Update(bool condition, Time now) {
    if (!since_.has_value() || condition != condition_) {
      condition_ = condition;
      since_ = now;
    }
    if (condition_ == raised_ || now - *since_ < (condition_ ? setAfter_ : clearAfter_)) {
      return std::nullopt;
    }
    raised_ = condition_;
    if (raised_) {
      raisedSince_ = *since_;
    }
    return raised_;
  }

  bool raised() const { return raised_; }
  // When the condition began that raised it.
  Time raisedSince() const { return raisedSince_; }

 private:
  Time setAfter_ = 0;
  Time clearAfter_ = 0;
  bool raised_ = false;
  bool condition_ = false;
  std::optional<Time> since_;  // of the condition's present value
  Time raisedSince_ = 0;
};

// The same for peaks, which never hold: the alarm is raised when within the time to set there were
// two a second on average, and over when there was none for the time to clear. Peaks that follow
// each other closely are one, so that a single loud moment is no alarm.
class PeakTimer {
 public:
  PeakTimer() = default;
  PeakTimer(Time setAfter, Time clearAfter)
      : setAfter_(setAfter),
        clearAfter_(clearAfter),
        needed_(static_cast<std::size_t>(std::max<Time>(2 * setAfter / kSecond, 1))) {}

  // Whether there is a peak at a time; times never decrease. The new state when it changes.
  std::optional<bool> Update(bool isPeak, Time now) {
    if (isPeak) {
      latest_ = now;
      if (peaks_.empty() || now - peaks_.back() >= kOnePeak) {
        peaks_.push_back(now);
      }
    }
    while (!peaks_.empty() && now - peaks_.front() > setAfter_) {
      peaks_.pop_front();
    }
    if (raised_ ? now - latest_ < clearAfter_ : peaks_.size() < needed_) {
      return std::nullopt;
    }
    raised_ = !raised_;
    raisedSince_ = raised_ ? peaks_.front() : raisedSince_;
    peaks_.clear();
    return raised_;
  }

  bool raised() const { return raised_; }
  // When the first of the peaks came that raised it.
  Time raisedSince() const { return raisedSince_; }

 private:
  static constexpr Time kOnePeak = kSecond / 4;

  Time setAfter_ = 0;
  Time clearAfter_ = 0;
  std::size_t needed_ = 1;
  std::deque<Time> peaks_;  // within the time to set: four a second at most
  Time latest_ = 0;
  bool raised_ = false;
  Time raisedSince_ = 0;
};

}  // namespace host
