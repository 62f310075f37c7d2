// TrackedSetting: an input of a drawing, and whether it is still the one that was drawn with.
#pragma once

#include <utility>

// A value that is assigned again and again, mostly the same, where only a change is worth work. It
// counts as unchanged when the drawing that was committed last was made with an equal value. The
// first assignment of all counts as a change, whatever it assigns.
//
// Owned by what draws; no lock. T is compared with ==; assigning an equal value copies nothing.
template <typename T>
class TrackedSetting {
 public:
  TrackedSetting() = default;
  explicit TrackedSetting(T initial) : current_(std::move(initial)) {}

  template <typename U>
  void Assign(const U& value) {
    changed_ = !set_;
    set_ = true;
    if (!(current_ == value)) {
      current_ = value;
    }
  }

  // Something has been drawn with the current value.
  void Commit() {
    changed_ = false;
    if (!previousValid_ || !(previous_ == current_)) {
      previous_ = current_;
      previousValid_ = true;
    }
  }

  bool Unchanged() const { return !changed_ && previousValid_ && previous_ == current_; }
  const T& Value() const { return current_; }

 private:
  bool changed_ = false;
  bool set_ = false;
  T current_{};
  bool previousValid_ = false;  // false before the first drawing
  T previous_{};                // what was drawn with
};
