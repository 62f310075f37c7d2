// EventFeed: what happens to a wall, to any number of clients, however slow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/os/mutex.h"

namespace host::control {

// An event is one JSON object in a line, with a running number. The latest ones are kept for
// clients that come back. Any thread publishes and subscribes; nobody waits for a client.
class EventFeed {
 public:
  struct Event {
    std::uint64_t number = 0;  // from 1, without gaps
    std::shared_ptr<const std::string> line;
  };
  struct Limits {
    std::size_t events = 256;
    std::size_t bytes = 1'000'000;
  };

  // One client. Destroyed by its owner on any thread.
  class Subscription {
   public:
    // wake: called by a publisher's thread, under the lock of the feed, when something waits that
    // did not before, and when the subscription is dropped: it only wakes another thread.
    Subscription(Limits limits, std::function<void()> wake)
        : limits_(limits), wake_(std::move(wake)) {}

    // What waits, oldest first.
    std::vector<Event> Take();
    // More waited than the limits allow: nothing comes any more.
    bool isDropped() const;

   private:
    friend class EventFeed;
    // False once dropped.
    bool Add(const Event& event);

    const Limits limits_;
    const std::function<void()> wake_;
    mutable os::Mutex lock_;
    std::deque<Event> waiting_ GUARDED_BY(lock_);
    std::size_t bytes_ GUARDED_BY(lock_) = 0;
    bool dropped_ GUARDED_BY(lock_) = false;
  };

  // kept: for clients that come back.
  explicit EventFeed(std::size_t kept = 1024) : kept_(kept) {}

  void Publish(std::string line);
  // after: number of the last event that the client has; what is kept of the later ones waits at
  // once. None: only what comes from now on. Null when events after that number are no longer kept
  // (or never were), or are more than the limits allow: the client needs a snapshot.
  std::shared_ptr<Subscription> Subscribe(std::optional<std::uint64_t> after, Limits limits,
                                          std::function<void()> wake);
  std::uint64_t latest() const;
  // Clients that follow.
  std::size_t clients() const;
  // Clients that were dropped because they were too slow.
  std::uint64_t dropped() const;

 private:
  const std::size_t kept_;
  mutable os::Mutex lock_;
  std::deque<Event> events_ GUARDED_BY(lock_);
  std::uint64_t latest_ GUARDED_BY(lock_) = 0;
  std::uint64_t dropped_ GUARDED_BY(lock_) = 0;
  std::vector<std::weak_ptr<Subscription>> clients_ GUARDED_BY(lock_);
};

}  // namespace host::control
