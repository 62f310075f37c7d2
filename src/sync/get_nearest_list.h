// GetNearestList, the time-ordered list between a side-input pin and the composition thread.
#pragma once

#include <cstdint>
#include <iterator>
#include <limits>
#include <list>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "platform/dshow/media.h"
#include "util/exceptions.h"

// Called for a value that leaves the list, before it is destroyed. The default does nothing.
template <typename T>
struct DefaultReleaser {
  void operator()(T& /*value*/) const noexcept {}
};

// Hands a value that was found to the caller: by default a copy.
template <typename T>
struct DefaultPropagator {
  void operator()(const T& value, T& target) const { target = value; }
};

// Time-stamped values, oldest first, from which a frame takes the one nearest to its own time.
//
// The times never decrease from first to last: a push that is earlier than the last element starts
// a new timeline and empties the list first. Lists are a few elements long, so a look-up is a plain
// scan and there is no index.
//
// Owned by a side-input pin. The pin's streaming thread pushes; the composition thread counts,
// looks up and drops. Every operation holds the list's own lock; it is recursive, so that the owner
// may combine several operations into one by holding it around them:
//
//   const std::lock_guard guard(list.lock());
//   if (list.count() != 0) list.getNearest(time, value, foundTime);
//
// The releaser is called under that lock and must neither throw nor call the list.
template <typename T, typename Releaser = DefaultReleaser<T>,
          typename Propagator = DefaultPropagator<T>>
class GetNearestList {
 public:
  // Thrown by getNearest when there is nothing to look up.
  using EmptyError = ExceptionTemplate<GetNearestList, TavrelException>;

  static constexpr std::int32_t kUnlimited = std::numeric_limits<std::int32_t>::max();

  GetNearestList() = default;
  GetNearestList(const GetNearestList&) = delete;
  GetNearestList& operator=(const GetNearestList&) = delete;
  ~GetNearestList() { RemoveUpTo(elements_.end()); }

  std::recursive_mutex& lock() const { return lock_; }

  std::uint64_t count() const {
    const std::lock_guard guard(lock_);
    return elements_.size();
  }

  // Maximum number of elements after a push; kUnlimited at first. Elements in excess stay until the
  // next push.
  void setCapacity(std::int32_t capacity) {
    const std::lock_guard guard(lock_);
    capacity_ = capacity;
  }

  // Adds a value at a time in 100 ns units. Throws std::bad_alloc or std::length_error, and then
  // the list is as it was.
  void push(REFERENCE_TIME time, T value) {
    std::list<Element> added;
    added.push_back({time, std::move(value)});
    const std::lock_guard guard(lock_);
    const bool restarts = !elements_.empty() && time < elements_.back().time;
    if (!restarts && elements_.size() == elements_.max_size()) {
      throw std::length_error("list<T> too long");
    }
    if (restarts) {
      RemoveUpTo(elements_.end());
    }
    elements_.splice(elements_.end(), added);
    // In 32 bits that wrap, like the platform's own counters.
    const auto excess = static_cast<std::int32_t>(static_cast<std::uint32_t>(elements_.size()) -
                                                  static_cast<std::uint32_t>(capacity_));
    for (std::int32_t i = 0; i < excess && !elements_.empty(); ++i) {
      RemoveUpTo(std::next(elements_.begin()));
    }
  }

  // Hands out the value whose time is nearest (the older of two that are equally near) and that
  // time, both in 100 ns units. Throws EmptyError on an empty list.
  void getNearest(REFERENCE_TIME time, T& value, REFERENCE_TIME& foundTime) const {
    const std::lock_guard guard(lock_);
    if (elements_.empty()) {
      throw EmptyError("Trying getNearest in an empty list does not make sense");
    }
    auto best = elements_.begin();
    auto bestDistance = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    for (auto element = elements_.begin(); element != elements_.end(); ++element) {
      const std::uint64_t distance = TimeDistance(time, element->time);
      if (distance < bestDistance) {
        best = element;
        bestDistance = distance;
      }
    }
    Propagator()(best->value, value);
    foundTime = best->time;
  }

  // Drops every element earlier than time (100 ns units); those at exactly that time stay.
  void removeBefore(REFERENCE_TIME time) {
    const std::lock_guard guard(lock_);
    auto firstKept = elements_.begin();
    while (firstKept != elements_.end() && firstKept->time < time) {
      ++firstKept;
    }
    RemoveUpTo(firstKept);
  }

 private:
  struct Element {
    REFERENCE_TIME time;
    T value;
  };
  using Iterator = typename std::list<Element>::iterator;

  void RemoveUpTo(Iterator end) {
    for (auto element = elements_.begin(); element != end; ++element) {
      Releaser()(element->value);
    }
    elements_.erase(elements_.begin(), end);
  }

  mutable std::recursive_mutex lock_;
  std::int32_t capacity_ = kUnlimited;  // guarded by lock_
  std::list<Element> elements_;         // guarded by lock_
};
