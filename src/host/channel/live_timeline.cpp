#include "host/channel/live_timeline.h"

namespace host {
namespace {

// Frames that come too late twice within this time are no single stall.
constexpr Time kAgainWithin = 10 * kSecond;
constexpr Time kReserve = kSecond / 20;
// More lead than needed, at which it shrinks unless a frame is longer, and the most by which it
// does so at once.
constexpr Time kTooMuchLead = kSecond / 50;
constexpr Time kShrinkStep = kSecond / 5;

}  // namespace

// The next later start of a frame.
Time LiveTimeline::OnGrid(Time shift) const {
  return FrameStart(FrameAt(shift - 1, settings_.frameRate) + 1, settings_.frameRate);
}

void LiveTimeline::Anchor(Time start, Time now) {
  shift_ = OnGrid(now + settings_.lead - start);
  behind_ = now - (start + *shift_);
  lateSince_.reset();
  lateBefore_.reset();
  range_.Clear();
  range_.Note(behind_, now);
  ++changes_;
}

void LiveTimeline::Move(Time by) {
  const Time shift = OnGrid(*shift_ + by);
  moved_ = shift - *shift_;
  if (moved_ != 0) {
    shift_ = shift;
    behind_ -= moved_;
    range_.Shift(-moved_);
    ++changes_;
  }
}

bool LiveTimeline::IsLateForLong(Time behind, Time now) {
  // Two latenesses with a stall between them are not one.
  const bool stalled = behind - behind_ >= settings_.lateLimit;
  behind_ = behind;
  if (behind > settings_.slack) {
    if (!lateSince_ || stalled) {
      lateSince_ = now;
      excess_ = 0;
    }
    excess_ = std::max(excess_, behind - settings_.slack);
    return now - *lateSince_ >= settings_.lateLimit;
  }
  if (lateSince_) {
    // It has caught up.
    const bool again = lateBefore_ && now - *lateBefore_ <= kAgainWithin;
    growth_ = again ? std::max(excess_, excessBefore_) + kReserve : 0;
    lateBefore_ = now;
    excessBefore_ = excess_;
    lateSince_.reset();
  }
  return false;
}

// What the range says about the distance.
Time LiveTimeline::Correction() const {
  if (range_.least() > 0) {
    return range_.least() + settings_.lead;
  }
  const Time spare = -range_.greatest() - settings_.lead;
  if (settings_.heldBack || spare < std::max(kTooMuchLead, FrameDuration(settings_.frameRate))) {
    return 0;
  }
  return -(range_.isYoung() ? spare : std::min(spare, kShrinkStep));
}

Time LiveTimeline::Place(Time start, bool jumped, Time now) {
  moved_ = 0;
  jumped_ = false;
  if (!shift_) {
    Anchor(start, now);
    changes_ = 0;
    return start + *shift_;
  }
  const Time behind = now - (start + *shift_);
  growth_ = 0;
  const bool late = IsLateForLong(behind, now);
  const bool full = range_.Note(behind, now);
  if (late || (jumped && behind > 0) || -behind > settings_.aheadLimit) {
    const Time before = *shift_;
    Anchor(start, now);
    jumped_ = *shift_ < before;
    moved_ = jumped_ || jumped ? 0 : *shift_ - before;
  } else if (growth_ > 0) {
    Move(std::min(growth_, std::max<Time>(settings_.maxLead - lead(), 0)));
  } else if (full) {
    Move(Correction());
  }
  return start + *shift_;
}

LiveTimeline::Fit LiveTimeline::Follow(Time start, Time now, Time* placed) {
  if (!shift_) {
    Anchor(start, now);
    changes_ = 0;
  }
  *placed = start + *shift_;
  if (*placed - now > settings_.followAhead) {
    return Fit::kTooEarly;
  }
  return now - *placed > settings_.followBehind ? Fit::kTooLate : Fit::kFits;
}

}  // namespace host
