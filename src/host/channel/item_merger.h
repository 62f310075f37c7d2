// Puts what one reader gives into the order of time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <queue>
#include <utility>
#include <vector>

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

}  // namespace host
