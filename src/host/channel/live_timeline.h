// LiveTimeline: where the times of a source lie on the wall's clock.
#pragma once

#include <limits>
#include <optional>

#include "host/channel/source/media_info.h"
#include "host/units.h"

namespace host {

// The first item of a source that was opened is due a lead after it came; everything else keeps its
// distance from it. The distance is given up when that serves the picture:
//  - the source's stamps jumped, and its pictures now come too late (a sender that was away and
//    began anew: its stamps go on where they were, and the time away would stay lost);
//  - its pictures have come late for so long that the source will not catch up;
//  - they lie too far ahead: the stamps of a live source made a leap, or those of a source that
//    nobody can hold back have run faster than the wall's clock for hours. What was placed further
//    ahead before has lost its place then (leapt).
// A source that stalled and sends what is missing in a burst does none of these: it is back at its
// former distance by itself, however long it stalled.
//
// Times come in from outside; owned and called by one reader; no lock.
class LiveTimeline {
 public:
  struct Settings {
    Time lead = kSecond / 4;        // room for jitter, for sorting and for decoding
    Time lateLimit = kSecond / 2;   // late without a break for so long: it does not catch up
    Time aheadLimit = 2 * kSecond;  // nothing of a live source lies further ahead than that
    // Sound may come before its pictures: decoders hold those back, of a slow source for long.
    Time followLimit = 4 * kSecond;
    Time grid = 1;  // the wall's time moves against the source's by multiples of it
  };

  // For a source whose reader wants to be no further ahead than span. What is pushed has to stay
  // clear of that: a reader that waits then only moves the time ahead into the buffers of the
  // network, until they overflow. What is pulled is held back by the waiting, and of a file, what
  // lies far ahead follows a long picture.
  static Settings For(Pace pace, Time span, Time grid) {
    Settings settings;
    settings.grid = grid;
    if (pace == Pace::kStored) {
      settings.aheadLimit = std::numeric_limits<Time>::max();
      settings.followLimit = std::numeric_limits<Time>::max();
    } else if (pace == Pace::kPushed) {
      settings.aheadLimit = span / 4 * 3;
    }
    return settings;
  }

  explicit LiveTimeline(const Settings& settings) : settings_(settings) {}

  // The wall's time for an item that decides: a picture, or a sound of a source without pictures.
  // jumped: the first after its source's stamps jumped.
  Time Place(Time start, bool jumped, Time now) {
    if (!shift_.has_value()) {
      shift_ = OnGrid(now + settings_.lead - start);
    }
    const Time behind = now - (start + *shift_);
    // Two latenesses with a stall between them are not one.
    const bool stalled = behind - behind_ >= settings_.lateLimit;
    behind_ = behind;
    if (behind <= 0) {
      lateSince_.reset();
    } else if (!lateSince_.has_value() || stalled) {
      lateSince_ = now;
    }
    const bool lateForGood =
        lateSince_.has_value() && (jumped || now - *lateSince_ >= settings_.lateLimit);
    leapt_ = -behind > settings_.aheadLimit;
    if (lateForGood || leapt_) {
      shift_ = OnGrid(now + settings_.lead - start);
      behind_ = now - (start + *shift_);
      lateSince_.reset();
      ++moves_;
    }
    return start + *shift_;
  }
  // The latest item was placed before some that had been placed earlier.
  bool leapt() const { return leapt_; }
  // The wall's time for everything else of the source. None for what lies so far ahead of the
  // pictures that waiting for its time would hold them up: the source has torn itself apart.
  std::optional<Time> Follow(Time start, Time now) {
    if (!shift_.has_value()) {
      shift_ = OnGrid(now + settings_.lead - start);
    }
    const Time placed = start + *shift_;
    return placed - now > settings_.followLimit ? std::nullopt : std::optional(placed);
  }

  // Something was placed.
  bool started() const { return shift_.has_value(); }
  // How often the distance was given up.
  int moves() const { return moves_; }

 private:
  // The next later multiple.
  Time OnGrid(Time shift) const {
    const Time rest = shift % settings_.grid;
    return rest == 0 ? shift : shift - rest + (rest > 0 ? settings_.grid : 0);
  }

  const Settings settings_;
  std::optional<Time> shift_;  // wall's time minus source's time
  Time behind_ = 0;            // the latest item, when it came
  std::optional<Time> lateSince_;
  bool leapt_ = false;
  int moves_ = 0;
};

}  // namespace host
