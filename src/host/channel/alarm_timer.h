// Decides when a condition becomes an alarm, and when the alarm is over.
#pragma once

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

}  // namespace host
