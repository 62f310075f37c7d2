// What a running wall shows to those who watch it as a service: metrics, and whether it is alive
// and ready.
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

// No composed frame for longer is an end of the composition.
inline constexpr std::chrono::seconds kHeartbeatLimit{5};

// Of one moment.
struct WallFigures {
  WallSession::Counters counters;
  FrameWatch::Totals composing;
  std::vector<ChannelBoard::Entry> channels;
  std::vector<OutputSet::Status> outputs;
};

// Channels are named by their names, outputs by their number, from 1, screens after the others;
// none carries an address.
void WriteMetrics(const WallFigures& wall, control::MetricsText& text);

// Of the preview; listeners: of audio.
void WriteMetrics(const Preview::Status& preview, std::size_t listeners,
                  control::MetricsText& text);

// Why nobody gets the frames; empty when an output works, or there are none.
std::string WhyNoOutput(const std::vector<OutputSet::Status>& outputs);

// The session of a wall, as far as others than its own thread look at it. Belongs to the command
// that runs the wall; board outlives it. The application's thread says while there is a session,
// any thread asks.
class WallWatch {
 public:
  explicit WallWatch(const ChannelBoard& board) : board_(board) {}

  // While one exists, the session runs and is looked at.
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
  // What channels, by their names, and outputs, screens included, do at this moment; any thread.
  nlohmann::ordered_json Live() const;

 private:
  using Clock = std::chrono::steady_clock;

  WallFigures Figures() const;
  std::string WhyNotAlive() const;
  std::string WhyNotReady() const;

  const ChannelBoard& board_;
  // Held while the session is looked at, which waits for nothing.
  mutable os::Mutex lock_;
  WallSession* session_ GUARDED_BY(lock_) = nullptr;
  Clock::time_point startedAt_ GUARDED_BY(lock_);
};

}  // namespace host::cli
