#include "host/cli/wall_status.h"

#include <algorithm>
#include <cmath>
#include <map>

#include <nlohmann/json.hpp>

#include "util/text_codecs.h"

namespace host::cli {
namespace {

using qorp::StringFormat;

double Milliseconds(std::chrono::nanoseconds time) {
  return std::round(static_cast<double>(time.count()) / 1e4) / 100;
}

}  // namespace

// How many are live, and which are not; a line has room for the first ones of each state.
std::string WallStatus::ChannelsText() const {
  constexpr std::size_t kMaxNames = 3;
  std::map<ChannelState, std::vector<std::string>> names;
  for (const ChannelBoard::Entry& entry : channels) {
    names[entry.status.state].push_back(entry.name);
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
  return text;
}

std::string WallStatus::LiveLine() const {
  std::string line =
      StringFormat("%.1f s, %llu frames, ", seconds,
                   static_cast<unsigned long long>(counters.composed)) +
      ChannelsText() +
      StringFormat("; late %llu, dropped %llu",
                   static_cast<unsigned long long>(counters.late + counters.noFreeBuffer),
                   static_cast<unsigned long long>(dropped));
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
    json["channels"].push_back(ToJson(entry));
  }
  json["outputs"] = nlohmann::ordered_json::array();
  for (const OutputSet::Status& output : outputs) {
    json["outputs"].push_back(ToJson(output, channels));
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
    json["audio"].push_back({{"channel", channels[i].name},
                             {"packets", audio.written},
                             {"dropped", audio.dropped},
                             {"left_out", audio.leftOut},
                             {"silence", audio.silence}});
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
