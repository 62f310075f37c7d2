// The status of a wall for programs and for people, while it runs and at its end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "host/cli/wall_events.h"
#include "host/output/output_set.h"
#include "host/session/wall_session.h"
#include "platform/os/service.h"

namespace host::cli {

struct WallStatus {
  double seconds = 0;  // of composed frames
  Time clock = 0;      // the wall's time
  WallSession::Counters counters;
  std::uint64_t dropped = 0;  // frames that the slowest output has dropped
  FrameWatch::Timing timing;  // of composing, since the status before
  std::vector<ChannelBoard::Entry> channels;
  std::vector<OutputSet::Status> outputs;
  std::vector<ScreenOutput::Status> screens;
  double elapsed = 0;           // seconds that a rendering has taken
  std::optional<double> total;  // seconds that it makes, where that is known

  // "12.0 s, 300 frames, channels: 7 live; held: Clip; late 0, dropped 0; read 9.1 MB; composed in
  // 3.1 ms"
  std::string LiveLine() const;
  // "34 %, 12.0 of 35.0 s, 3.1 times as fast, 0:07 to go; channels: 8 live; lost: Clip"
  std::string RenderingLine() const;
  // {"event":"status","time":...,"frames":...,"channels":[...]}
  std::string JsonLine() const;
  // The result at the end: a line for each output.
  std::string Summary() const;
  // The same for programs, of a live wall {"event":"end",...}.
  std::string EndLine(bool live) const;

 private:
  nlohmann::ordered_json ChannelsJson() const;
  nlohmann::ordered_json OutputsJson() const;
  std::string ChannelsText() const;
  std::string ReadText() const;
};

// An output in a report.
nlohmann::ordered_json ToJson(const OutputSet::Status& output,
                              const std::vector<ChannelBoard::Entry>& channels);
nlohmann::ordered_json ToJson(const ScreenOutput::Status& screen);

// Reports to the service manager: ready once the first frame is composed, alive as long as frames
// are, and the status line from time to time. Application's thread.
class ServiceStatus {
 public:
  explicit ServiceStatus(os::ServiceNotifier notifier) : notifier_(std::move(notifier)) {}
  ~ServiceStatus() { notifier_.Stopping(); }
  ServiceStatus(const ServiceStatus&) = delete;
  ServiceStatus& operator=(const ServiceStatus&) = delete;

  // composed: frames since the start. To be called more often than half the watchdog's period.
  void Report(std::uint64_t composed);
  void Say(const std::string& line) { notifier_.Status(line); }

 private:
  const os::ServiceNotifier notifier_;
  std::uint64_t reported_ = 0;
  bool ready_ = false;
};

}  // namespace host::cli
