#include "host/cli/channel_board.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "platform/os/system_time.h"

namespace host::cli {

using Json = nlohmann::ordered_json;

std::string TimestampUtc() {
  const os::SystemTime now = os::CurrentSystemTime();
  char text[64];
  std::snprintf(text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", now.year, now.month,
                now.day, now.hour, now.minute, now.second, now.milliseconds);
  return text;
}

double SecondsOf(Time time) {
  return std::round(static_cast<double>(time) / kMillisecond) / 1000;
}

std::string OneLine(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

namespace {

// "state", "reason" (if there is one), "since".
template <typename Status>
void Add(const Status& status, Json& json) {
  json["state"] = NameOf(status.state);
  if (!status.reason.empty()) {
    json["reason"] = status.reason;
  }
  json["since"] = SecondsOf(status.since);
}

}  // namespace

Json ToJson(const ChannelBoard::Entry& entry) {
  Json json = {{"name", entry.name}};
  Add(entry.status, json);
  Add(entry.audio, json["audio"]);
  json["alarms"] = Json::array();
  for (const AlarmKind kind : kAllAlarms) {
    if (entry.alarms[static_cast<std::size_t>(kind)]) {
      json["alarms"].push_back(NameOf(kind));
    }
  }
  if (entry.timing) {
    json["jitter"] = SecondsOf(entry.timing->jitter);
    json["lead"] = SecondsOf(entry.timing->lead);
    json["audio_too_early"] = entry.timing->audioTooEarly;
    json["audio_too_late"] = entry.timing->audioTooLate;
    json["overflowed"] = entry.timing->overflowed;
  }
  return json;
}

ChannelBoard::ChannelBoard(const std::vector<wall::Channel>& channels, ChannelObserver& next,
                           JsonLines& events)
    : next_(next), events_(events) {
  for (const wall::Channel& channel : channels) {
    index_[channel.name] = entries_.size();
    entries_.push_back({channel.name, {}, {}, {}});
  }
}

void ChannelBoard::ChannelOpened(const std::string& channel, const MediaInfo& info) {
  next_.ChannelOpened(channel, info);
}

void ChannelBoard::ChannelEnded(const std::string& channel) {
  next_.ChannelEnded(channel);
}

void ChannelBoard::ChannelFailed(const std::string& channel, const std::string& reason,
                                 std::optional<std::chrono::milliseconds> retryIn) {
  next_.ChannelFailed(channel, reason, retryIn);
}

void ChannelBoard::ChannelTimed(const std::string& channel, const SourceTiming& timing) {
  const std::lock_guard guard(lock_);
  entries_[index_.at(channel)].timing = timing;
}

void ChannelBoard::ChannelSoundChanged(const std::string& channel, const std::string& what) {
  next_.ChannelSoundChanged(channel, what);
}

void ChannelBoard::ChannelChanged(const std::string& channel, const ChannelLife::Status& status) {
  {
    const std::lock_guard guard(lock_);
    entries_[index_.at(channel)].status = status;
  }
  if (events_.enabled()) {
    Json line = {{"event", "channel"}, {"time", TimestampUtc()}, {"channel", channel}};
    Add(status, line);
    events_.Write(OneLine(line));
  }
  next_.ChannelChanged(channel, status);
}

void ChannelBoard::AudioChanged(const std::string& channel, const AudioStatus& status) {
  {
    const std::lock_guard guard(lock_);
    entries_[index_.at(channel)].audio = status;
  }
  if (events_.enabled()) {
    Json line = {{"event", "audio"}, {"time", TimestampUtc()}, {"channel", channel}};
    Add(status, line);
    events_.Write(OneLine(line));
  }
  next_.AudioChanged(channel, status);
}

void ChannelBoard::AlarmChanged(const std::string& channel, const AlarmMonitor::Change& change) {
  {
    const std::lock_guard guard(lock_);
    entries_[index_.at(channel)].alarms[static_cast<std::size_t>(change.kind)] = change.raised;
  }
  if (events_.enabled()) {
    events_.Write(OneLine({{"event", "alarm"},
                           {"time", TimestampUtc()},
                           {"channel", channel},
                           {"alarm", NameOf(change.kind)},
                           {"raised", change.raised},
                           {"since", SecondsOf(change.since)}}));
  }
  next_.AlarmChanged(channel, change);
}

std::vector<ChannelBoard::Entry> ChannelBoard::entries() const {
  const std::lock_guard guard(lock_);
  return entries_;
}

std::size_t ChannelBoard::CountIn(ChannelState state) const {
  const std::lock_guard guard(lock_);
  return static_cast<std::size_t>(
      std::count_if(entries_.begin(), entries_.end(),
                    [&](const Entry& entry) { return entry.status.state == state; }));
}

}  // namespace host::cli
