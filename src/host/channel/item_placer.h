// The times of a source on the wall's clock: the offset of a live source (LiveTimeline), and the
// place of each of its items (ItemPlacer).
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

// Smallest and greatest value of the last five to ten seconds; at first, of shorter times.
class RecentRange {
 public:
  static constexpr Time kFirstHalf = kSecond / 2;
  static constexpr Time kHalf = 5 * kSecond;

  // True each time a half is full, except for the first.
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
  // Changes all values by this much.
  void Shift(Time by) {
    former_.Shift(by);
    latest_.Shift(by);
  }

  bool empty() const { return !since_.has_value(); }
  // Does not cover ten seconds yet.
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
  std::optional<Time> since_;  // start of the latest half
  bool full_ = false;          // there is a former half
  Range former_;
  Range latest_;
};

// The offset from a source's time to the wall's. The first frame is due a lead after its arrival;
// everything else follows by its timestamp. The composer shows a frame the wall's delay after it is
// due, so a frame that arrives up to `slack` late is still shown at its time: the margin for jitter
// and bursts. The offset changes only for these reasons:
//
//   later    - frames are too late again and again (bursts that are longer than the margin): the
//              lead grows by what is missing, up to maxLead;
//            - frames have been too late for so long that the source will not catch up;
//            - even the earliest frames of ten seconds were late: the source's clock is slow, or it
//              paused and did not catch up. It gets its whole lead again;
//            - the source's timestamps jumped, and its frames are now late;
//   earlier  - even the latest frames of ten seconds have more lead than they need: it shrinks in
//              small steps, or at once in the first seconds, because a source sends in a burst what
//              has accumulated while it was opened. Only of a source that is not held back;
//            - frames are too far ahead: the timestamps jumped.
//
// A source that stalls and then sends what is missing in a burst is back at its former offset by
// itself, however long it stalled; one such stall changes nothing.
//
// The caller passes the time; owned and called by one reader; no lock. Times in 100 ns.
class LiveTimeline {
 public:
  struct Settings {
    Time lead = 0;
    Time maxLead = kSecond;
    Time slack = 3 * kSecond / 4;
    Time lateLimit = kSecond / 2;   // too late without a break for this long: will not catch up
    Time aheadLimit = 2 * kSecond;  // no frame of a live source is further ahead
    // Audio is taken this far before and after the wall's time.
    Time followAhead = 4 * kSecond;
    Time followBehind = 3 * kSecond / 2;
    bool heldBack = false;  // the reader waits for the wall, so an early arrival means nothing
    // The offset is a whole number of the canvas's frames: frames are dropped to that rate before.
    Ratio frameRate{10'000'000, 1};
  };

  // For a source of this kind; frameRate: of the canvas; delay: of the wall.
  static Settings For(SourceKind kind, Ratio frameRate, Time delay) {
    Settings settings;
    settings.frameRate = frameRate;
    settings.heldBack = kind != SourceKind::kPush;
    settings.lead = settings.heldBack ? delay / 4 : settings.lead;
    // Just before the delay is over, repeats replace what has not arrived.
    settings.slack = std::max(delay - kSecond / 4, delay * 3 / 10);
    settings.followBehind = delay + kSecond / 2;
    if (kind == SourceKind::kFile) {
      // In a file, a frame that is far ahead follows a long one.
      settings.aheadLimit = std::numeric_limits<Time>::max();
      settings.followAhead = std::numeric_limits<Time>::max();
    }
    return settings;
  }

  explicit LiveTimeline(const Settings& settings) : settings_(settings) {}

  // The wall's time of an item that may change the offset: a frame, or audio of a source without
  // video. jumped: the first after the source's timestamps jumped.
  Time Place(Time start, bool jumped, Time now);
  // By how much the latest Place moved everything, what was placed before it included.
  Time moved() const { return moved_; }
  // The latest Place put its item before some that had been placed earlier: these are void.
  bool jumped() const { return jumped_; }

  enum class Fit { kFits, kTooEarly, kTooLate };
  // The wall's time of every other item of the source, and whether it can be used then.
  Fit Follow(Time start, Time now, Time* placed);

  // The wall's time of an item by the present offset; none before the first.
  std::optional<Time> Expected(Time start) const {
    return shift_ ? std::optional(start + *shift_) : std::nullopt;
  }
  // An item has been placed.
  bool started() const { return shift_.has_value(); }
  // How often the offset changed.
  int changes() const { return changes_; }
  // Of the last ten seconds: between the earliest and the latest arrivals, and from the earliest
  // arrivals to their time.
  Time jitter() const { return range_.empty() ? 0 : range_.greatest() - range_.least(); }
  Time behind() const { return behind_; }  // how late the latest item was
  Time lead() const { return range_.empty() ? settings_.lead : -range_.least(); }

 private:
  Time OnGrid(Time shift) const;
  void Anchor(Time start, Time now);
  void Move(Time by);
  bool IsLateForLong(Time behind, Time now);
  Time Correction() const;

  const Settings settings_;
  std::optional<Time> shift_;  // wall's time minus source's time
  RecentRange range_;          // of how late the items were
  Time behind_ = 0;            // how late the latest item was
  std::optional<Time> lateSince_;
  Time excess_ = 0;                 // by which items were too late since then
  std::optional<Time> lateBefore_;  // end of the period of lateness before
  Time excessBefore_ = 0;
  Time growth_ = 0;  // of the lead, because of both periods
  Time moved_ = 0;
  bool jumped_ = false;
  int changes_ = 0;
};

// For a rendered wall: a container's video and audio are interleaved, and a decoder holds frames
// back. Items are kept until everything that may belong before them has arrived: until an item has
// arrived whose time is a window later. An item that arrives after that is due at the time reached.
// The order of the output depends on the order of the input only. One thread.
template <typename Item>
class ItemMerger {
 public:
  explicit ItemMerger(Time window) : window_(window) {}

  void Push(Time time, Item item) {
    newest_ = std::max(newest_, time);
    waiting_.push({std::max(time, reached_), next_++, std::move(item)});
  }
  // No more items will come: all that are waiting are in order.
  void Finish() { newest_ = std::numeric_limits<Time>::max(); }

  // When the next item that may be taken is due; null when there is none.
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
  // Everything up to this time has arrived.
  Time Horizon() const {
    return newest_ == std::numeric_limits<Time>::max() ? newest_ : newest_ - window_;
  }

 private:
  struct Entry {
    Time time;
    std::uint64_t order;  // items of one time keep the order in which they were pushed
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
// queue. In a live wall the frames decide about the offset (LiveTimeline), each kind is queued by
// itself, and audio that is too early or too late is dropped and counted. In a rendered wall the
// source's times are the wall's, and all items are first put in order of time (ItemMerger).
//
// Owned and called by one reader on its thread.
class ItemPlacer {
 public:
  // Rendered: how far audio and video may be apart.
  static constexpr Time kMergeWindow = 3 * kSecond / 2;

  struct Settings {
    SourceKind kind = SourceKind::kFile;
    bool hasVideo = false;
    bool hasAudio = false;
    Ratio frameRate{25, 1};     // of the canvas
    std::function<Time()> now;  // the wall's time; null: a rendered wall
    Time delay = kSecond;       // of the wall
  };
  // Audio packets that were dropped.
  struct LeftOut {
    std::uint64_t tooEarly = 0;
    std::uint64_t tooLate = 0;
    bool operator==(const LeftOut&) const = default;
  };

  ItemPlacer(Settings settings, ChannelQueue& queue);

  // Times of the source, in 100 ns. Each returns false once the queue is closed. jumped: the
  // source's timestamps jumped before this frame.
  bool Add(Time start, Time duration, bool jumped, ReadyFrame frame);
  bool Add(Time start, Time duration, AudioPacket packet);
  bool Add(Time start, Time duration, ReadyLevels levels);
  // The wall's time of a frame by the present offset; none before the first item.
  std::optional<Time> PlaceOfFrame(Time start) const;
  // The wall's time of audio; none where it would be dropped.
  std::optional<Time> PlaceOfAudio(Time start);
  bool AddEvent(Time placed, SourceEvent event) { return Put(placed, 0, std::move(event)); }
  // Nothing more comes from this source.
  bool Finish();

  // When everything that was queued is due; 0 at first.
  Time latest() const { return latest_; }
  // Something was queued since the last call.
  bool TakeProgress();
  const LeftOut& leftOut() const { return leftOut_; }
  Time jitter() const { return timeline_.jitter(); }
  Time lead() const { return timeline_.lead(); }
  // How late the latest frame was; negative: early.
  Time behind() const { return timeline_.behind(); }

 private:
  // The first frame places a live source. Reading may begin in the middle of a GOP: audio of the
  // time before the first frame would make everything after it late.
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
