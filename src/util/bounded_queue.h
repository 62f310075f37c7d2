// A queue of bounded length between two threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>

namespace host {

// One side pushes, one side pops; any thread may close. When the queue is full, the pushing side
// either waits for room or drops the oldest element, as it chooses each time. Elements that are
// queued when the queue is closed are still popped.
template <typename T>
class BoundedQueue {
 public:
  explicit BoundedQueue(std::size_t capacity) : capacity_(capacity) {}

  // Returns the element that was dropped, if any; the new one when the queue is closed.
  std::optional<T> PushDroppingOldest(T element) {
    std::optional<T> dropped;
    {
      const std::lock_guard guard(lock_);
      if (closed_) {
        return element;
      }
      if (elements_.size() >= capacity_) {
        dropped = std::move(elements_.front());
        elements_.pop_front();
      }
      elements_.push_back(std::move(element));
    }
    filled_.notify_one();
    return dropped;
  }

  // Waits for room; false once the queue is closed.
  bool PushWaiting(T element) {
    {
      std::unique_lock guard(lock_);
      roomMade_.wait(guard, [&] { return closed_ || elements_.size() < capacity_; });
      if (closed_) {
        return false;
      }
      elements_.push_back(std::move(element));
    }
    filled_.notify_one();
    return true;
  }

  // Waits until another element fits; false when that takes longer than the limit or the queue is
  // closed.
  bool WaitForRoom(std::chrono::milliseconds limit) {
    std::unique_lock guard(lock_);
    return roomMade_.wait_for(guard, limit, [&] {
      return closed_ || elements_.size() < capacity_;
    }) && !closed_;
  }

  // Waits for an element; none once the queue is closed and empty.
  std::optional<T> Pop() {
    std::unique_lock guard(lock_);
    filled_.wait(guard, [&] { return closed_ || !elements_.empty(); });
    return TakeFront(guard);
  }
  // The same, waiting no longer than the limit.
  std::optional<T> PopFor(std::chrono::milliseconds limit) {
    std::unique_lock guard(lock_);
    filled_.wait_for(guard, limit, [&] { return closed_ || !elements_.empty(); });
    return TakeFront(guard);
  }

  void Close() {
    {
      const std::lock_guard guard(lock_);
      closed_ = true;
    }
    filled_.notify_all();
    roomMade_.notify_all();
  }
  bool closed() const {
    const std::lock_guard guard(lock_);
    return closed_;
  }
  std::size_t size() const {
    const std::lock_guard guard(lock_);
    return elements_.size();
  }

 private:
  std::optional<T> TakeFront(std::unique_lock<std::mutex>& guard) {
    if (elements_.empty()) {
      return std::nullopt;
    }
    std::optional<T> element(std::move(elements_.front()));
    elements_.pop_front();
    guard.unlock();
    roomMade_.notify_one();
    return element;
  }

  const std::size_t capacity_;
  mutable std::mutex lock_;
  std::condition_variable filled_;
  std::condition_variable roomMade_;
  std::deque<T> elements_;  // guarded by lock_
  bool closed_ = false;     // guarded by lock_
};

}  // namespace host
