// History: what happened to a wall within the last day, in memory.
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

#include "host/control/event_feed.h"

namespace host::control::http {

// The events of the feed, without the whole state that some of them carry. The oldest ones are
// dropped after a day, or when there are too many. Server's thread.
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

  // feed outlives it. wake: Collect shall be called; as of EventFeed::Subscription.
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

}  // namespace host::control::http
