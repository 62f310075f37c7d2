#include "host/cli/wall_status.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <utility>

#include <nlohmann/json.hpp>

#include "util/text_codecs.h"

namespace host::cli {

using Json = nlohmann::ordered_json;

namespace {

using qorp::StringFormat;

double Milliseconds(std::chrono::nanoseconds time) {
  return std::round(static_cast<double>(time.count()) / 1e4) / 100;
}

}  // namespace

// How many channels are live, and which are not; names only the first few of each state.
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
                   static_cast<unsigned long long>(counters.late) + counters.noFreeBuffer,
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
  json["channels"] = ChannelsJson();
  json["outputs"] = OutputsJson();
  return control::OneLine(json);
}

std::string WallStatus::EndLine(bool live) const {
  Json report;
  if (live) {
    report["event"] = "end";
    report["time"] = TimestampUtc();
  }
  report["frames"] = counters.composed;
  report["seconds"] = seconds;
  report["elapsed"] = std::round(elapsed * 1000) / 1000;
  report["late"] = counters.late;
  report["no_free_buffer"] = counters.noFreeBuffer;
  report["outputs"] = OutputsJson();
  report["channels"] = ChannelsJson();
  return control::OneLine(report);
}

Json WallStatus::ChannelsJson() const {
  Json list = Json::array();
  for (const ChannelBoard::Entry& entry : channels) {
    if (entry.isAssigned) {
      list.push_back(ToJson(entry));
    }
  }
  return list;
}

Json WallStatus::OutputsJson() const {
  Json list = Json::array();
  for (const OutputSet::Status& output : outputs) {
    list.push_back(ToJson(output, channels));
  }
  for (const ScreenOutput::Status& screen : screens) {
    list.push_back(ToJson(screen));
  }
  return list;
}

std::string WallStatus::Summary() const {
  std::string text;
  for (const OutputSet::Status& output : outputs) {
    if (!output.failed) {
      text += (output.files > 0 ? output.file : output.name) + ": " +
              std::to_string(output.video.written) + " frames, " + StringFormat("%.1f s", seconds);
      if (output.files > 1) {
        text += ", the last of " + std::to_string(output.files) + " files";
      }
      text += "\n";
    }
  }
  for (const ScreenOutput::Status& screen : screens) {
    text += screen.name + ": " + std::to_string(screen.shown) + " frames shown\n";
  }
  return text;
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
    return;  // no new frame: the watchdog restarts a wall that hangs
  }
  reported_ = composed;
  if (!ready_) {
    ready_ = notifier_.Ready();
  }
  notifier_.FeedWatchdog();
}

}  // namespace host::cli
