#include "host/cli/wall_events.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <nlohmann/json.hpp>

#include "platform/os/console.h"
#include "util/time_text.h"

namespace host::cli {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kMaxWaitingEvents = 1024;
constexpr std::chrono::milliseconds kLineTimeout{500};

// The reason that a reader gives for a source of audio only, which is complete without video.
constexpr const char* kNoVideo = "it has no video";

std::string Describe(const MediaInfo& info) {
  std::string text = info.format;
  if (info.video.has_value()) {
    text += ", " + info.video->codec + " " + std::to_string(info.video->width) + "x" +
            std::to_string(info.video->height);
  } else {
    text += ", no video (" + info.noVideoReason + ")";
  }
  if (info.audio.has_value()) {
    text += ", " + info.audio->codec;
  } else {
    text += ", no audio (" + info.noAudioReason + ")";
  }
  return text;
}

// "state", "reason" (if there is one), "since".
template <typename Status>
void Add(const Status& status, Json& json) {
  json["state"] = NameOf(status.state);
  if (!status.reason.empty()) {
    json["reason"] = status.reason;
  }
  json["since"] = SecondsOf(status.since);
}

void Add(DecodeStep step, const std::string& reason, Json& json) {
  json["step"] = NameOf(step);
  if (!reason.empty()) {
    json["reason"] = reason;
  }
}

void Add(const RenditionStatus& status, Json& json) {
  json["number"] = status.number;
  json["of"] = status.count;
  json["width"] = status.width;
  json["height"] = status.height;
  json["source"] = status.source;
  json["reason"] = status.reason;
}

Json OutputEvent(const std::string& output, const char* state) {
  return {{"event", "output"}, {"time", TimestampUtc()}, {"output", output}, {"state", state}};
}

}  // namespace

JsonLines::JsonLines(std::ostream& stream, bool enabled)
    : stream_(stream), queue_(kMaxWaitingEvents) {
  if (enabled) {
    thread_ = std::make_unique<os::Thread>([this] { Run(); }, "json lines");
  }
}

JsonLines::~JsonLines() {
  Finish();
}

void JsonLines::Write(std::string line) {
  if (enabled() && queue_.PushDroppingOldest(std::move(line)).has_value()) {
    ++dropped_;
  }
}

void JsonLines::Finish() {
  if (thread_ != nullptr) {
    finishing_ = true;
    queue_.Close();
    thread_->Wait(os::kInfinite);
    thread_.reset();
  }
}

void JsonLines::Run() {
  while (const std::optional<std::string> line = queue_.Pop()) {
    std::string text;
    if (const std::uint64_t dropped = dropped_.exchange(0)) {
      text = "{\"event\":\"dropped\",\"lines\":" + std::to_string(dropped) + "}\n";
    }
    text += *line + "\n";
    stream_.clear();
    stream_.write(text.data(), static_cast<std::streamsize>(text.size()));
    while (!os::FlushWithin(stream_, kLineTimeout)) {
      if (finishing_) {
        return;
      }
    }
  }
}

std::string TimestampUtc() {
  return qorp::TimestampUtc(std::chrono::system_clock::now());
}

double SecondsOf(Time time) {
  return std::round(static_cast<double>(time) / kMillisecond) / 1000;
}

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
  Add(entry.decoding, entry.decodingReason, json["decoding"]);
  if (entry.timing) {
    json["jitter"] = SecondsOf(entry.timing->jitter);
    json["lead"] = SecondsOf(entry.timing->lead);
    json["audio_too_early"] = entry.timing->audioTooEarly;
    json["audio_too_late"] = entry.timing->audioTooLate;
    json["frames_lost"] = entry.timing->framesLost;
    json["audio_lost"] = entry.timing->audioLost;
    json["overflowed"] = entry.timing->overflowed;
    json["bytes_read"] = entry.timing->counts.bytes;
    json["timestamp_jumps"] = entry.timing->timestampJumps;
    json["packets_lost"] = entry.timing->counts.packetsLost;
    json["packets_damaged"] = entry.timing->counts.packetsDamaged;
  }
  if (entry.rendition) {
    Add(*entry.rendition, json["rendition"]);
  }
  return json;
}

std::string ChannelBoard::Entry::NotShown() const {
  if (!failure.empty() || wasLive) {
    return failure;
  }
  return status.reason.empty() ? "nothing came of it" : status.reason;
}

std::optional<double> LengthOf(const std::vector<ChannelBoard::Entry>& channels) {
  std::optional<Time> longest;
  for (const ChannelBoard::Entry& channel : channels) {
    if (channel.isAssigned &&
        (channel.openings > 0 ? !channel.length.has_value() : channel.failure.empty())) {
      return {};
    }
    longest = std::max(longest, channel.length);
  }
  return longest ? std::optional(SecondsOf(*longest)) : std::nullopt;
}

ChannelBoard::ChannelBoard(const config::Wall& wall, MessageLog& messages, JsonLines& events)
    : messages_(messages), events_(events) {
  entries_.resize(wall.channels.size() + static_cast<std::size_t>(wall.spare));
  for (std::size_t slot = 0; slot < entries_.size(); ++slot) {
    Assign(slot, slot < wall.channels.size() ? wall.channels[slot].name : "");
  }
}

void ChannelBoard::Assign(std::size_t slot, const std::string& name) {
  const os::MutexLock guard(lock_);
  Entry& entry = entries_[slot];
  if (entry.isAssigned) {
    index_.erase(entry.name);
    failures_.erase(entry.name);
  }
  entry = Entry();
  entry.isAssigned = !name.empty();
  entry.name = entry.isAssigned ? name : "Spare " + std::to_string(slot + 1);
  if (entry.isAssigned) {
    index_[name] = slot;
  }
}

void ChannelBoard::Say(std::int32_t level, const std::string& channel, const std::string& what) {
  messages_.Say(level, "channel \"" + channel + "\": " + what);
}

void ChannelBoard::Publish(const Json& event) {
  const std::string line = control::OneLine(event);
  events_.Write(line);
  if (feed_ != nullptr) {
    feed_->Publish(line);
  }
}

void ChannelBoard::ChannelOpened(const std::string& channel, const MediaInfo& info) {
  bool wasLost = false;
  {
    const os::MutexLock guard(lock_);
    Entry& entry = Of(channel);
    ++entry.openings;
    entry.length = info.length;
    entry.failure = info.video || info.noVideoReason == kNoVideo ? "" : info.noVideoReason;
    wasLost = failures_.erase(channel) > 0;
  }
  // At the level at which the failure was reported, so is its end.
  Say(wasLost || !info.video.has_value() ? qorp::log::kError : qorp::log::kInfo, channel,
      "opened (" + Describe(info) + ")");
}

void ChannelBoard::ChannelEnded(const std::string& channel) {
  {
    const os::MutexLock guard(lock_);
    failures_.erase(channel);
  }
  Say(qorp::log::kInfo, channel, "ended");
}

void ChannelBoard::ChannelFailed(const std::string& channel, const std::string& reason,
                                 std::optional<std::chrono::milliseconds> retryIn) {
  bool isNew = false;
  {
    const os::MutexLock guard(lock_);
    Entry& entry = Of(channel);
    entry.failure = reason;
    ++entry.failures;
    const auto [failure, isFirst] = failures_.try_emplace(channel, reason);
    isNew = isFirst || failure->second != reason;
    failure->second = reason;
  }
  Say(isNew ? qorp::log::kError : qorp::log::kDebug, channel,
      reason + (retryIn.has_value() ? "; it is tried again" : ""));
}

void ChannelBoard::ChannelTimed(const std::string& channel, const SourceTiming& timing) {
  const os::MutexLock guard(lock_);
  Of(channel).timing = timing;
}

void ChannelBoard::DecodingChanged(const std::string& channel, DecodeStep step,
                                   const std::string& reason) {
  {
    const os::MutexLock guard(lock_);
    Entry& entry = Of(channel);
    entry.decoding = step;
    entry.decodingReason = reason;
  }
  if (hasReaders()) {
    Json line = {{"event", "decoding"}, {"time", TimestampUtc()}, {"channel", channel}};
    Add(step, reason, line);
    Publish(line);
  }
  std::string name = NameOf(step);
  std::replace(name.begin(), name.end(), '_', ' ');
  Say(step >= DecodeStep::kReferencedOnly ? qorp::log::kWarning : qorp::log::kInfo, channel,
      "decoding is " + name + (reason.empty() ? "" : ": " + reason));
}

void ChannelBoard::RenditionChanged(const std::string& channel, const RenditionStatus& status) {
  {
    const os::MutexLock guard(lock_);
    Of(channel).rendition = status;
  }
  if (events_.enabled()) {
    Json line = {{"event", "rendition"}, {"time", TimestampUtc()}, {"channel", channel}};
    Add(status, line);
    events_.Write(control::OneLine(line));
  }
  Say(qorp::log::kInfo, channel,
      "reads rendition " + std::to_string(status.number) + " of " + std::to_string(status.count) +
          " (" + std::to_string(status.width) + "x" + std::to_string(status.height) +
          "): " + status.reason);
}

void ChannelBoard::AudioPathChanged(const std::string& channel, const std::string& what) {
  Say(qorp::log::kWarning, channel, what);
}

void ChannelBoard::ChannelChanged(const std::string& channel, const ChannelLife::Status& status) {
  {
    const os::MutexLock guard(lock_);
    Entry& entry = Of(channel);
    entry.status = status;
    entry.wasLive = entry.wasLive || status.state == ChannelState::kLive;
  }
  if (hasReaders()) {
    Json line = {{"event", "channel"}, {"time", TimestampUtc()}, {"channel", channel}};
    Add(status, line);
    Publish(line);
  }
}

void ChannelBoard::AudioChanged(const std::string& channel, const AudioStatus& status) {
  {
    const os::MutexLock guard(lock_);
    Of(channel).audio = status;
  }
  if (hasReaders()) {
    Json line = {{"event", "audio"}, {"time", TimestampUtc()}, {"channel", channel}};
    Add(status, line);
    Publish(line);
  }
  const bool isFault = status.state > AudioState::kAbsent;
  std::string state = NameOf(status.state);
  std::replace(state.begin(), state.end(), '_', ' ');
  Say(isFault ? qorp::log::kWarning : qorp::log::kInfo, channel,
      "audio is " + state + (status.reason.empty() ? "" : " (" + status.reason + ")"));
}

void ChannelBoard::AlarmChanged(const std::string& channel, const AlarmMonitor::Change& change) {
  {
    const os::MutexLock guard(lock_);
    Entry& entry = Of(channel);
    const auto kind = static_cast<std::size_t>(change.kind);
    entry.alarms[kind] = change.raised;
    entry.alarmsRaised[kind] += change.raised ? 1 : 0;
  }
  if (hasReaders()) {
    Publish({{"event", "alarm"},
             {"time", TimestampUtc()},
             {"channel", channel},
             {"alarm", NameOf(change.kind)},
             {"raised", change.raised},
             {"since", SecondsOf(change.since)}});
  }
}

std::vector<ChannelBoard::Entry> ChannelBoard::entries() const {
  const os::MutexLock guard(lock_);
  return entries_;
}

void OutputMessages::OutputFailed(const std::string& output, const std::string& reason,
                                  std::optional<std::chrono::milliseconds> retryIn) {
  const std::string text = reason + (retryIn.has_value() ? "; it is tried again" : "");
  {
    const os::MutexLock guard(lock_);
    if (std::exchange(said_[output], text) == text) {
      return;
    }
  }
  messages_.Say(qorp::log::kError, "output " + output + ": " + text);
  if (publish_) {
    nlohmann::ordered_json event = OutputEvent(output, "failed");
    event["reason"] = reason;
    event["retries"] = retryIn.has_value();
    publish_(event);
  }
}

void OutputMessages::OutputOpened(const std::string& output, const std::string& target,
                                  Opening opening) {
  {
    const os::MutexLock guard(lock_);
    said_.erase(output);
  }
  const std::string what = "output " + output + ": ";
  const std::string written = target == output ? "" : "; written is " + target;
  switch (opening) {
    case Opening::kFirst:
      messages_.Say(qorp::log::kInfo, what + "open" + written);
      break;
    case Opening::kBeside:
      messages_.Say(qorp::log::kError, what + "a file of that name exists and is kept" + written);
      break;
    case Opening::kAgain:
      messages_.Say(qorp::log::kError, what + "open again" + written);
      break;
    case Opening::kNext:
      messages_.Say(qorp::log::kInfo, what + "continues" + written);
      break;
  }
  if (publish_) {
    publish_(OutputEvent(output, "open"));
  }
}

void OutputMessages::OutputSaid(const std::string& output, const std::string& what) {
  messages_.Say(qorp::log::kWarning, "output " + output + ": " + what);
}

}  // namespace host::cli
