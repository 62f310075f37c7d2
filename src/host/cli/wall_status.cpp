#include "host/cli/wall_status.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <utility>

#include <nlohmann/json.hpp>

#include "util/text_codecs.h"
#include "util/time_text.h"

namespace host::cli {

using Json = nlohmann::ordered_json;

namespace {

using qorp::StringFormat;

// The reason that a reader gives for a source of audio only, which is complete without video.
constexpr const char* kNoVideo = "it has no video";

double Milliseconds(std::chrono::nanoseconds time) {
  return std::round(static_cast<double>(time.count()) / 1e4) / 100;
}

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

}  // namespace

std::string TimestampUtc() {
  return qorp::TimestampUtc(std::chrono::system_clock::now());
}

double SecondsOf(Time time) {
  return std::round(static_cast<double>(time) / kMillisecond) / 1000;
}

std::string OneLine(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
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
  const std::string line = OneLine(event);
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
  // Where the failure was reported, its end is, too.
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
    events_.Write(OneLine(line));
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

// How many are live, and which are not; a line has room for the first ones of each state.
std::string WallStatus::ChannelsText() const {
  constexpr std::size_t kMaxNames = 3;
  std::map<ChannelState, std::vector<std::string>> names;
  for (const ChannelBoard::Entry& entry : channels) {
    if (entry.isAssigned) {
      names[entry.status.state].push_back(entry.name);
    }
  }
  std::string text = "channels: " + std::to_string(names[ChannelState::kLive].size()) + " live";
  names.erase(ChannelState::kLive);
  for (const auto& [state, list] : names) {
    text += std::string("; ") + NameOf(state) + ": ";
    for (std::size_t i = 0; i < std::min(list.size(), kMaxNames); ++i) {
      text += (i > 0 ? ", " : "") + list[i];
    }
    if (list.size() > kMaxNames) {
      text += " and " + std::to_string(list.size() - kMaxNames) + " more";
    }
  }
  const auto reduced = std::count_if(channels.begin(), channels.end(), [](const auto& entry) {
    return entry.decoding >= DecodeStep::kReferencedOnly;
  });
  if (reduced > 0) {
    text += "; decoded in part: " + std::to_string(reduced);
  }
  return text;
}

// "; read 12.3 MB; renditions: 12 of 854x480, 4 of 1920x1080"
std::string WallStatus::ReadText() const {
  std::uint64_t bytes = 0;
  std::map<std::pair<int, int>, int> renditions;  // channels by size
  for (const ChannelBoard::Entry& entry : channels) {
    bytes += entry.timing ? entry.timing->counts.bytes : 0;
    if (entry.rendition) {
      ++renditions[{entry.rendition->width, entry.rendition->height}];
    }
  }
  std::string text;
  if (bytes > 0) {
    text = StringFormat("; read %.1f MB", static_cast<double>(bytes) / 1e6);
  }
  for (const auto& [size, count] : renditions) {
    text += (size == renditions.begin()->first ? "; renditions: " : ", ") +
            StringFormat("%d of %dx%d", count, size.first, size.second);
  }
  return text;
}

std::string WallStatus::LiveLine() const {
  std::string line =
      StringFormat("%.1f s, %llu frames, ", seconds,
                   static_cast<unsigned long long>(counters.composed)) +
      ChannelsText() +
      StringFormat("; late %llu, dropped %llu",
                   static_cast<unsigned long long>(counters.late + counters.noFreeBuffer),
                   static_cast<unsigned long long>(dropped)) +
      ReadText();
  if (timing.frames > 0) {
    line += StringFormat("; composed in %.1f ms (longest %.1f)", Milliseconds(timing.mean()),
                         Milliseconds(timing.longest));
  }
  return line;
}

std::string WallStatus::RenderingLine() const {
  const double speed = elapsed > 0 ? seconds / elapsed : 0;
  std::string line;
  if (total && *total > 0) {
    const double done = std::min(seconds / *total, 1.0);
    line = StringFormat("%.0f %%, %.1f of %.1f s", std::floor(done * 100), seconds, *total);
  } else {
    line = StringFormat("%.1f s", seconds);
  }
  line += StringFormat(", %.1f times as fast", speed);
  if (total && speed > 0) {
    const auto left = static_cast<long long>(std::ceil(std::max(*total - seconds, 0.0) / speed));
    line += StringFormat(", %lld:%02lld to go", left / 60, left % 60);
  }
  return line + "; " + ChannelsText();
}

std::string WallStatus::JsonLine() const {
  nlohmann::ordered_json json = {{"event", "status"},
                                 {"time", TimestampUtc()},
                                 {"clock", SecondsOf(clock)},
                                 {"frames", counters.composed},
                                 {"seconds", std::round(seconds * 1000) / 1000},
                                 {"late", counters.late},
                                 {"no_free_buffer", counters.noFreeBuffer},
                                 {"dropped", dropped},
                                 {"compose_ms", Milliseconds(timing.mean())},
                                 {"longest_compose_ms", Milliseconds(timing.longest)}};
  json["channels"] = nlohmann::ordered_json::array();
  for (const ChannelBoard::Entry& entry : channels) {
    if (entry.isAssigned) {
      json["channels"].push_back(ToJson(entry));
    }
  }
  json["outputs"] = nlohmann::ordered_json::array();
  for (const OutputSet::Status& output : outputs) {
    json["outputs"].push_back(ToJson(output, channels));
  }
  for (const ScreenOutput::Status& screen : screens) {
    json["outputs"].push_back(ToJson(screen));
  }
  return OneLine(json);
}

nlohmann::ordered_json ToJson(const OutputSet::Status& output,
                              const std::vector<ChannelBoard::Entry>& channels) {
  nlohmann::ordered_json json = {{"url", output.name}};
  if (output.files > 0) {
    json["file"] = output.file;
    json["files"] = output.files;
  }
  json["frames"] = output.video.written;
  json["dropped"] = output.video.dropped + output.video.leftOut;
  json["overflows"] = output.overflows;
  if (!output.failure.empty()) {
    json["failure"] = output.failure;
  }
  for (std::size_t i = 0; i < output.audio.size(); ++i) {
    const OutputSet::TrackStatus& audio = output.audio[i];
    json["audio"].push_back({{"channel", i < channels.size() ? channels[i].name : "Follow"},
                             {"packets", audio.written},
                             {"dropped", audio.dropped},
                             {"left_out", audio.leftOut},
                             {"silence", audio.silence}});
  }
  return json;
}

nlohmann::ordered_json ToJson(const ScreenOutput::Status& screen) {
  nlohmann::ordered_json json = {{"url", screen.name},      {"state", NameOf(screen.state)},
                                 {"frames", screen.shown},  {"skipped", screen.skipped},
                                 {"behind", screen.behind}, {"openings", screen.openings}};
  if (!screen.failure.empty()) {
    json["failure"] = screen.failure;
  }
  return json;
}

void ServiceStatus::Report(std::uint64_t composed) {
  if (composed == reported_) {
    return;  // a wall that stands is one that the manager is to start again
  }
  reported_ = composed;
  if (!ready_) {
    ready_ = notifier_.Ready();
  }
  notifier_.FeedWatchdog();
}

}  // namespace host::cli
