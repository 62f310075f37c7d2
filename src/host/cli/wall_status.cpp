#include "host/cli/wall_status.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace host::cli {
namespace {

double Milliseconds(std::chrono::nanoseconds time) {
  return std::round(static_cast<double>(time.count()) / 1e4) / 100;
}

}  // namespace

std::size_t WallStatus::CountIn(ChannelState state) const {
  return static_cast<std::size_t>(
      std::count_if(channels.begin(), channels.end(),
                    [&](const ChannelBoard::Entry& entry) { return entry.status.state == state; }));
}

std::string WallStatus::Line(bool live) const {
  char numbers[96];
  std::snprintf(numbers, sizeof(numbers), "%.1f s, %llu frames, channels:", seconds,
                static_cast<unsigned long long>(counters.composed));
  std::string line = numbers;
  const std::size_t opening = CountIn(ChannelState::kOpening);
  line += " " + std::to_string(CountIn(ChannelState::kLive)) + " live, " +
          std::to_string(CountIn(ChannelState::kHeld)) + " held, " +
          std::to_string(CountIn(ChannelState::kLost)) + " lost";
  if (opening > 0) {
    line += ", " + std::to_string(opening) + " opening";
  }
  if (live) {
    line += "; late " + std::to_string(counters.late + counters.starved) + ", dropped " +
            std::to_string(dropped);
  }
  if (timing.frames > 0) {
    std::snprintf(numbers, sizeof(numbers), "; composed in %.1f ms (longest %.1f)",
                  Milliseconds(timing.mean()), Milliseconds(timing.longest));
    line += numbers;
  }
  return line;
}

std::string WallStatus::JsonLine() const {
  nlohmann::ordered_json json = {{"event", "status"},
                                 {"time", TimestampUtc()},
                                 {"clock", SecondsOf(clock)},
                                 {"frames", counters.composed},
                                 {"seconds", std::round(seconds * 1000) / 1000},
                                 {"late", counters.late},
                                 {"starved", counters.starved},
                                 {"dropped", dropped},
                                 {"compose_ms", Milliseconds(timing.mean())},
                                 {"longest_compose_ms", Milliseconds(timing.longest)}};
  json["channels"] = nlohmann::ordered_json::array();
  for (const ChannelBoard::Entry& entry : channels) {
    json["channels"].push_back(ToJson(entry));
  }
  return OneLine(json);
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
