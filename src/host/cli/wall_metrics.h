// Monitoring of a running wall as a service: metrics, and whether it is alive and ready.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/wall_status.h"
#include "host/control/monitoring.h"
#include "host/output/output_set.h"
#include "host/output/preview.h"
#include "host/output/screen/screen_output.h"
#include "host/session/wall_session.h"
#include "platform/os/mutex.h"

namespace host::cli {

// When no frame is composed for longer than this, the wall is not alive.
inline constexpr std::chrono::seconds kHeartbeatLimit{5};

// Of one moment.
struct WallFigures {
  WallSession::Counters counters;
  FrameWatch::Totals composing;
  std::vector<ChannelBoard::Entry> channels;
  std::vector<OutputSet::Status> outputs;
};

// Channels are labelled by name, outputs by number, from 1, screens after the others; no label is
// an address.
void WriteMetrics(const WallFigures& wall, control::MetricsText& text);

// Of the preview; listeners: of audio.
void WriteMetrics(const Preview::Status& preview, std::size_t listeners,
                  control::MetricsText& text);

// Why no output delivers the frames; empty when one works, or there are none.
std::string WhyNoOutput(const std::vector<OutputSet::Status>& outputs);

// Access of other threads to the figures of a wall's session. Belongs to the command that runs the
// wall; board outlives it. The application's thread sets the session while there is one, any thread
// asks.
class WallWatch {
 public:
  explicit WallWatch(const ChannelBoard& board) : board_(board) {}

  // While one exists, the session runs and may be read.
  class Running {
   public:
    Running(WallWatch& watch, WallSession& session);
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

   private:
    WallWatch& watch_;
  };

  control::Monitoring Monitoring() const;
  // The present status of the channels, by name, and of the outputs, screens included; any thread.
  nlohmann::ordered_json Live() const;

 private:
  using Clock = std::chrono::steady_clock;

  WallFigures Figures() const;
  std::string WhyNotAlive() const;
  std::string WhyNotReady() const;

  const ChannelBoard& board_;
  // Held while the session is read, which waits for nothing.
  mutable os::Mutex lock_;
  WallSession* session_ GUARDED_BY(lock_) = nullptr;
  Clock::time_point startedAt_ GUARDED_BY(lock_);
};

}  // namespace host::cli
