// SessionExecutor: applies a changed state to the running wall.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/channel/window_schedule.h"
#include "host/control/wall_control.h"
#include "host/session/wall_session.h"

namespace host::control {

// Compares two states slot by slot and changes only what differs. Application's thread.
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

// The channel that the screens play: the one that is followed, otherwise the one that is
// selected, or none.
std::optional<std::size_t> HeardSlot(const WallState& state);

// The composer's windows for a wall in that state; slots without a channel are hidden.
std::vector<WindowState> WindowsOf(const WallState& state);

}  // namespace host::control
