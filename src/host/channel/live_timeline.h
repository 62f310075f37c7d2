// LiveTimeline: where the timestamps of a live source lie on the wall's clock.
#pragma once

#include <algorithm>
#include <limits>
#include <optional>

#include "host/channel/source/media_info.h"
#include "host/units.h"

namespace host {

// Smallest and greatest of the values of the last five to ten seconds; at first, of shorter times.
class RecentRange {
 public:
  static constexpr Time kFirstHalf = kSecond / 2;
  static constexpr Time kHalf = 5 * kSecond;

  // True when another half is full: the range then covers two, and it is a new one.
  bool Note(Time value, Time now) {
    bool turned = false;
    if (!since_ || now - *since_ >= half_) {
      turned = full_ && since_.has_value();
      half_ = turned ? std::min(2 * half_, kHalf) : half_;
      full_ = since_.has_value();
      former_ = latest_;
      latest_ = {};
      since_ = now;
    }
    latest_.Add(value);
    return turned;
  }
  void Clear() { *this = RecentRange(); }
  // All values change by that much.
  void Shift(Time by) {
    former_.Shift(by);
    latest_.Shift(by);
  }

  bool empty() const { return !since_.has_value(); }
  // It does not cover ten seconds yet.
  bool isYoung() const { return half_ < kHalf; }
  Time least() const { return std::min(former_.least, latest_.least); }
  Time greatest() const { return std::max(former_.greatest, latest_.greatest); }

 private:
  struct Range {
    Time least = std::numeric_limits<Time>::max() / 2;
    Time greatest = std::numeric_limits<Time>::min() / 2;
    void Add(Time value) {
      least = std::min(least, value);
      greatest = std::max(greatest, value);
    }
    void Shift(Time by) {
      least += by;
      greatest += by;
    }
  };

  Time half_ = kFirstHalf;
  std::optional<Time> since_;  // begin of the latest half
  bool full_ = false;          // the former half counts
  Range former_;
  Range latest_;
};

// The first frame of a source is due a lead after it came; everything else keeps its distance from
// it. The composer shows a frame the wall's delay after it was due, so what comes up to `slack`
// after its time is still shown at its time: that is the margin for jitter and for bursts. The
// distance changes only when that serves the channel:
//
//   later    - frames come too late again and again (bursts that are longer than the margin): the
//              lead grows by what is missing, up to maxLead;
//            - frames have come too late for that long that the source will not catch up;
//            - even the earliest frames of ten seconds came after their time: the source's clock is
//              slow, or it paused and did not catch up. It keeps its whole lead;
//            - the source's timestamps jumped, and its frames now come after their time;
//   earlier  - even the latest frames of ten seconds have more lead than they need: it shrinks in
//              small steps, or at once in the first seconds: a source that is opened gives what was
//              read meanwhile in a burst. Only of a source that is not held back;
//            - frames lie too far ahead: the timestamps jumped.
//
// A source that stalled and sends what is missing in a burst is back at its former distance by
// itself, however long it stalled, and one such stall changes nothing.
//
// Times come in from outside; owned and called by one reader; no lock. Times in 100 ns.
class LiveTimeline {
 public:
  struct Settings {
    Time lead = 0;
    Time maxLead = kSecond;
    Time slack = 3 * kSecond / 4;
    Time lateLimit = kSecond / 2;   // too late without a break for that long: no catching up
    Time aheadLimit = 2 * kSecond;  // nothing of a live source lies further ahead than that
    // Audio is taken that far before and after the wall's time.
    Time followAhead = 4 * kSecond;
    Time followBehind = 3 * kSecond / 2;
    bool heldBack = false;  // the reader waits for the wall, so coming early means nothing
    // The distance is a whole number of the canvas's frames, by which the source's were thinned.
    Ratio frameRate{10'000'000, 1};
  };

  // For a source of that kind; frameRate: of the canvas; delay: of the wall.
  static Settings For(SourceKind kind, Ratio frameRate, Time delay) {
    Settings settings;
    settings.frameRate = frameRate;
    settings.heldBack = kind != SourceKind::kPush;
    settings.lead = settings.heldBack ? delay / 4 : settings.lead;
    // Just before the delay is over, repeats take the place of what has not come.
    settings.slack = std::max(delay - kSecond / 4, delay * 3 / 10);
    settings.followBehind = delay + kSecond / 2;
    if (kind == SourceKind::kFile) {
      // What lies far ahead in a file follows a long frame.
      settings.aheadLimit = std::numeric_limits<Time>::max();
      settings.followAhead = std::numeric_limits<Time>::max();
    }
    return settings;
  }

  explicit LiveTimeline(const Settings& settings) : settings_(settings) {}

  // The wall's time for an item that decides: a frame, or audio of a source without video. jumped:
  // the first after the source's timestamps jumped.
  Time Place(Time start, bool jumped, Time now);
  // By how much the latest Place changed the distance of everything that was placed before, too.
  Time moved() const { return moved_; }
  // The latest Place put its item before some that had been placed earlier: they have lost their
  // place.
  bool jumped() const { return jumped_; }

  enum class Fit { kFits, kTooEarly, kTooLate };
  // The wall's time for everything else of the source, and whether there is a use for it then.
  Fit Follow(Time start, Time now, Time* placed);

  // The wall's time of an item by what is known; none before the first.
  std::optional<Time> Expected(Time start) const {
    return shift_ ? std::optional(start + *shift_) : std::nullopt;
  }
  // Something was placed.
  bool started() const { return shift_.has_value(); }
  // How often the distance changed.
  int changes() const { return changes_; }
  // Of the last ten seconds: how far apart the earliest and the latest arrivals lie, and how long
  // before their time the earliest come.
  Time jitter() const { return range_.empty() ? 0 : range_.greatest() - range_.least(); }
  Time behind() const { return behind_; }  // the latest item came that long after its time
  Time lead() const { return range_.empty() ? settings_.lead : -range_.least(); }

 private:
  Time OnGrid(Time shift) const;
  void Anchor(Time start, Time now);
  void Move(Time by);
  bool IsLateForLong(Time behind, Time now);
  Time Correction() const;

  const Settings settings_;
  std::optional<Time> shift_;  // wall's time minus source's time
  RecentRange range_;          // of how long after their time the items came
  Time behind_ = 0;            // the latest item, when it came
  std::optional<Time> lateSince_;
  Time excess_ = 0;                 // by which items came too late since then
  std::optional<Time> lateBefore_;  // end of the former time of lateness
  Time excessBefore_ = 0;
  Time growth_ = 0;  // due to both
  Time moved_ = 0;
  bool jumped_ = false;
  int changes_ = 0;
};

}  // namespace host
