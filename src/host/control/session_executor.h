// SessionExecutor: makes a running wall as its state says.
#pragma once

#include <cstdint>
#include <vector>

#include "host/channel/window_schedule.h"
#include "host/control/wall_control.h"
#include "host/session/wall_session.h"

namespace host::control {

// Compares two states slot by slot and does what differs, and nothing to what does not.
// Application's thread.
class SessionExecutor final : public WallExecutor {
 public:
  // session outlives it, and runs live.
  explicit SessionExecutor(WallSession& session) : session_(session) {}

  std::int64_t Execute(const WallState& before, const WallState& next) override;

 private:
  void ChangeSlot(std::size_t slot, const std::optional<ChannelEntry>& before,
                  const std::optional<ChannelEntry>& next);

  WallSession& session_;
};

// What the composer is answered for a wall of that state; slots without a channel are hidden.
std::vector<WindowState> WindowsOf(const WallState& state);

}  // namespace host::control
