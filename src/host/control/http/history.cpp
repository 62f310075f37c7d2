#include "host/control/http/history.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "host/control/http/message.h"
#include "util/time_text.h"

namespace host::control::http {

namespace {

constexpr EventFeed::Limits kWaiting{1024, 16'000'000};

}  // namespace

History::History(EventFeed& feed, std::function<void()> wake, Clock now, Limits limits)
    : feed_(feed), wake_(std::move(wake)), now_(std::move(now)), limits_(limits) {
  Subscribe();
}

// From where it was, if the feed still has all of it.
void History::Subscribe() {
  events_ = feed_.Subscribe(last_, kWaiting, wake_);
  while (!events_) {
    last_ = feed_.latest();
    events_ = feed_.Subscribe(last_, kWaiting, wake_);
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
  std::string line = Dump(json);
  if (line.size() > limits_.entryBytes) {
    json.erase("commands");
    line = Dump(json);
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

}  // namespace host::control::http
