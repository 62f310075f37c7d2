// The times of a source on the wall's clock: where the timestamps of a live source lie
// (LiveTimeline), and its items one by one (ItemPlacer).
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <queue>
#include <utility>
#include <vector>

#include "host/channel/channel_queue.h"
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

// For a rendered wall: a container's video and audio come interleaved, and a decoder holds frames
// back. Items are kept until everything that may belong before them has come, which is when an item
// has come that lies a window later. What comes later than that is late: it is due at the time
// reached. The order that comes out is a function of the order that goes in, and of nothing else.
// One thread.
template <typename Item>
class ItemMerger {
 public:
  explicit ItemMerger(Time window) : window_(window) {}

  void Push(Time time, Item item) {
    newest_ = std::max(newest_, time);
    waiting_.push({std::max(time, reached_), next_++, std::move(item)});
  }
  // No more items will come: all that wait are in order.
  void Finish() { newest_ = std::numeric_limits<Time>::max(); }

  // When the next item that is in its place is due; null when none is.
  const Time* Next() const {
    return !waiting_.empty() && waiting_.top().time <= Horizon() ? &waiting_.top().time : nullptr;
  }
  Item Take() {
    reached_ = waiting_.top().time;
    // The queue gives a const reference only, and the entry is dropped at once.
    Item item = std::move(const_cast<Entry&>(waiting_.top()).item);
    waiting_.pop();
    return item;
  }
  // Everything up to this time has come.
  Time Horizon() const {
    return newest_ == std::numeric_limits<Time>::max() ? newest_ : newest_ - window_;
  }

 private:
  struct Entry {
    Time time;
    std::uint64_t order;  // items of one time keep the order in which they came
    Item item;
    bool operator<(const Entry& other) const {
      return time != other.time ? time > other.time : order > other.order;
    }
  };

  const Time window_;
  std::priority_queue<Entry> waiting_;
  Time newest_ = std::numeric_limits<Time>::min() / 2;
  Time reached_ = std::numeric_limits<Time>::min() / 2;
  std::uint64_t next_ = 0;
};

// Gives every frame, audio packet and level its time on the wall's clock and puts it into the
// queue. Live, the frames decide (LiveTimeline), each kind is queued by itself, and audio that is
// too early or too late for its time is left out and counted. Rendered, the source's times are the
// wall's, and everything is put in the order of time first (ItemMerger).
//
// Owned and called by one reader on its thread.
class ItemPlacer {
 public:
  static constexpr Time kMergeWindow =
      3 * kSecond / 2;  // rendered: how far audio and video may lie apart

  struct Settings {
    SourceKind kind = SourceKind::kFile;
    bool hasVideo = false;
    bool hasAudio = false;
    Ratio frameRate{25, 1};     // of the canvas
    std::function<Time()> now;  // the wall's time; null: a rendered wall
    Time delay = kSecond;       // of the wall
  };
  // Audio packets that have no place in the outputs.
  struct LeftOut {
    std::uint64_t tooEarly = 0;
    std::uint64_t tooLate = 0;
    bool operator==(const LeftOut&) const = default;
  };

  ItemPlacer(Settings settings, ChannelQueue& queue);

  // Times of the source, in 100 ns. Each returns false once the queue is closed. jumped: the
  // source's timestamps jumped before it.
  bool Add(Time start, Time duration, bool jumped, ReadyFrame picture);
  bool Add(Time start, Time duration, AudioPacket packet);
  bool Add(Time start, Time duration, ReadyLevels levels);
  // Where a frame of that time of the source would come to lie by what is known; none where nothing
  // is yet.
  std::optional<Time> PlaceOfFrame(Time start) const;
  // What became of the audio at that time of the source; none where that has no place on the wall.
  std::optional<Time> PlaceOfAudio(Time start);
  bool AddEvent(Time placed, SourceEvent event) { return Put(placed, 0, std::move(event)); }
  // Nothing more comes from this source.
  bool Finish();

  // When everything that was handed on is shown; 0 before that.
  Time latest() const { return latest_; }
  // Something was handed on since the last call.
  bool TakeProgress();
  const LeftOut& leftOut() const { return leftOut_; }
  Time jitter() const { return timeline_.jitter(); }
  Time lead() const { return timeline_.lead(); }
  // How long after its time the latest frame came; negative: before it.
  Time behind() const { return timeline_.behind(); }

 private:
  // The first frame places a live source: it may come in the middle of a GOP, and audio that was
  // waited for until then would make all that follows late.
  bool WaitsForFrame() const;
  Time Place(Time start, bool jumped);
  bool Put(Time start, Time duration, decltype(ChannelItem::content) content);
  bool HandOn(ChannelItem item);
  bool Flush();

  const Settings settings_;
  ChannelQueue& queue_;
  LiveTimeline timeline_;
  ItemMerger<ChannelItem> merger_;
  Time latest_ = 0;
  std::optional<Time> audioSinceFrame_;  // start of the first audio since the latest frame
  bool progress_ = false;
  LeftOut leftOut_;
};

}  // namespace host
