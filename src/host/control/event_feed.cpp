#include "host/control/event_feed.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "util/time_text.h"

namespace host::control {

namespace {

// Each change carries the whole state.
constexpr std::size_t kMaxKeptBytes = 16'000'000;
constexpr EventFeed::Limits kHistoryWaiting{1024, 16'000'000};

}  // namespace

std::vector<EventFeed::Event> EventFeed::Subscription::Take() {
  const os::MutexLock guard(lock_);
  std::vector<Event> events(std::make_move_iterator(waiting_.begin()),
                            std::make_move_iterator(waiting_.end()));
  waiting_.clear();
  bytes_ = 0;
  return events;
}

bool EventFeed::Subscription::isDropped() const {
  const os::MutexLock guard(lock_);
  return dropped_;
}

bool EventFeed::Subscription::Add(const Event& event) {
  bool wakes = false;
  bool isDropped = false;
  {
    const os::MutexLock guard(lock_);
    if (dropped_) {
      return false;
    }
    wakes = waiting_.empty();
    waiting_.push_back(event);
    bytes_ += event.line->size();
    if (waiting_.size() > limits_.events || bytes_ > limits_.bytes) {
      waiting_.clear();
      bytes_ = 0;
      dropped_ = isDropped = wakes = true;
    }
  }
  if (wakes && wake_) {
    wake_();
  }
  return !isDropped;
}

void EventFeed::Publish(std::string line) {
  // Under the lock, so that every client gets the events in their order.
  const os::MutexLock guard(lock_);
  const Event event{++latest_, std::make_shared<const std::string>(std::move(line))};
  bytes_ += event.line->size();
  events_.push_back(event);
  while (events_.size() > kept_ || bytes_ > kMaxKeptBytes) {
    bytes_ -= events_.front().line->size();
    events_.pop_front();
  }
  std::erase_if(clients_, [&](const std::weak_ptr<Subscription>& client) {
    lock_.AssertHeld();
    const std::shared_ptr<Subscription> alive = client.lock();
    if (alive == nullptr) {
      return true;
    }
    const bool isDropped = !alive->Add(event);
    dropped_ += isDropped ? 1 : 0;
    return isDropped;
  });
}

std::shared_ptr<EventFeed::Subscription> EventFeed::Subscribe(std::optional<std::uint64_t> after,
                                                              Limits limits,
                                                              std::function<void()> wake) {
  const os::MutexLock guard(lock_);
  const std::uint64_t first = events_.empty() ? latest_ + 1 : events_.front().number;
  if (after && (*after + 1 < first || *after > latest_)) {
    return nullptr;
  }
  auto client = std::make_shared<Subscription>(limits, std::move(wake));
  for (const Event& event : events_) {
    if (after && event.number > *after) {
      client->Add(event);
    }
  }
  if (client->isDropped()) {
    return nullptr;  // more than it may have waiting
  }
  clients_.push_back(client);
  return client;
}

std::uint64_t EventFeed::latest() const {
  const os::MutexLock guard(lock_);
  return latest_;
}

std::size_t EventFeed::clients() const {
  const os::MutexLock guard(lock_);
  return static_cast<std::size_t>(std::count_if(
      clients_.begin(), clients_.end(), [](const auto& client) { return !client.expired(); }));
}

std::uint64_t EventFeed::dropped() const {
  const os::MutexLock guard(lock_);
  return dropped_;
}

History::History(EventFeed& feed, std::function<void()> wake, Clock now, Limits limits)
    : feed_(feed), wake_(std::move(wake)), now_(std::move(now)), limits_(limits) {
  Subscribe();
}

// From where it was, if the feed still has all of it.
void History::Subscribe() {
  events_ = feed_.Subscribe(last_, kHistoryWaiting, wake_);
  while (!events_) {
    last_ = feed_.latest();
    events_ = feed_.Subscribe(last_, kHistoryWaiting, wake_);
  }
}

void History::Collect() {
  if (events_->isDropped()) {
    Subscribe();
  }
  for (const EventFeed::Event& event : events_->Take()) {
    Add(event);
  }
  while (!entries_.empty() && (entries_.size() > limits_.entries || bytes_ > limits_.bytes ||
                               now_() - entries_.front().time > limits_.age)) {
    bytes_ -= entries_.front().line.size();
    entries_.pop_front();
  }
}

void History::Add(const EventFeed::Event& event) {
  last_ = event.number;
  nlohmann::ordered_json json = nlohmann::ordered_json::parse(*event.line, nullptr, false);
  if (!json.is_object()) {
    return;
  }
  const auto now = now_();
  if (const auto state = json.find("state"); state != json.end() && state->is_object()) {
    json.erase(state);  // of the whole wall
  }
  json["number"] = event.number;
  if (!json.contains("time")) {
    json["time"] = qorp::TimestampUtc(now);
  }
  std::string line = OneLine(json);
  if (line.size() > limits_.entryBytes) {
    json.erase("commands");
    line = OneLine(json);
  }
  bytes_ += line.size();
  entries_.push_back({event.number, now, std::move(line)});
}

std::string History::Json(std::uint64_t before) {
  Collect();
  std::string list = "[";
  std::size_t count = 0;
  for (auto entry = entries_.rbegin(); entry != entries_.rend() && count < limits_.answered;
       ++entry) {
    if (entry->number < before) {
      list += (count++ == 0 ? "" : ",") + entry->line;
    }
  }
  return list + "]";
}

std::string OneLine(const nlohmann::ordered_json& json) {
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace host::control
