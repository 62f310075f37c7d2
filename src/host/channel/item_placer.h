// ItemPlacer: gives the items of a source their time on the wall's clock.
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
#include "host/channel/live_timeline.h"
#include "host/channel/source/media_info.h"
#include "host/units.h"

namespace host {

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
