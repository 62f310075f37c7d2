// The events of a wall: sent to any number of clients, however slow (EventFeed), and kept for the
// last day (History).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/os/mutex.h"

namespace host::control {

// An event is one line with a JSON object, and a running number. The latest ones are kept for
// clients that reconnect. Any thread publishes and subscribes; no thread waits for a client.
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
    // wake: called by a publisher's thread, under the lock of the feed, when the first event waits
    // and when the subscription is dropped; it must only wake another thread.
    Subscription(Limits limits, std::function<void()> wake)
        : limits_(limits), wake_(std::move(wake)) {}

    // The events that wait, oldest first.
    std::vector<Event> Take();
    // More waited than the limits allow: no further events come.
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

  // kept: number of events for clients that reconnect.
  explicit EventFeed(std::size_t kept = 1024) : kept_(kept) {}

  void Publish(std::string line);
  // after: number of the last event that the client has; the later ones wait at once. None: only
  // events from now on. Returns null when events after that number are no longer kept (or never
  // were), or are more than the limits allow: the client then needs a snapshot.
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
  std::size_t bytes_ GUARDED_BY(lock_) = 0;  // of these
  std::uint64_t latest_ GUARDED_BY(lock_) = 0;
  std::uint64_t dropped_ GUARDED_BY(lock_) = 0;
  std::vector<std::weak_ptr<Subscription>> clients_ GUARDED_BY(lock_);
};

// The events of the last day, in memory, without the whole state that some of them carry. The
// oldest ones are dropped after a day, or when there are too many. One thread.
class History {
 public:
  struct Limits {
    std::chrono::hours age{24};
    std::size_t entries = 20'000;
    std::size_t bytes = 4'000'000;
    std::size_t entryBytes = 16'000;  // a longer entry is kept without its commands
    std::size_t answered = 500;       // entries in one answer
  };
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  // feed outlives it. wake: asks for a call of Collect; as in EventFeed::Subscription.
  History(EventFeed& feed, std::function<void()> wake, Clock now = &std::chrono::system_clock::now)
      : History(feed, std::move(wake), std::move(now), Limits()) {}
  History(EventFeed& feed, std::function<void()> wake, Clock now, Limits limits);

  // Takes what the feed has.
  void Collect();
  // A list of JSON objects, newest first: those with a smaller number than before.
  std::string Json(std::uint64_t before = std::numeric_limits<std::uint64_t>::max());

 private:
  struct Entry {
    std::uint64_t number;
    std::chrono::system_clock::time_point time;
    std::string line;
  };

  void Add(const EventFeed::Event& event);
  void Subscribe();

  EventFeed& feed_;
  const std::function<void()> wake_;
  const Clock now_;
  const Limits limits_;
  std::shared_ptr<EventFeed::Subscription> events_;
  std::uint64_t last_ = 0;  // number of the last event that was taken
  std::deque<Entry> entries_;
  std::size_t bytes_ = 0;
};

// Events and answers as one line. Bytes that are not UTF-8 become replacement characters.
std::string OneLine(const nlohmann::ordered_json& json);

}  // namespace host::control
