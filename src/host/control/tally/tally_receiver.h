// TallyReceiver: tally and texts from switchers and controllers, as commands.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/config/wall.h"
#include "host/control/wall_control.h"
#include "platform/os/thread.h"

namespace host::control {

// Receives over UDP and TCP on a thread of its own and submits changes: red sets the selection
// border, green and amber the colour of the label (its own otherwise), a text that is not blank the
// label. For each channel at most one request is in progress, and only the latest state waits, so
// that nothing accumulates at any rate of messages. Messages about displays that no channel has are
// ignored, as are senders that are not allowed.
//
// Made and destroyed by the application's thread; control outlives it, and is closed before it is
// destroyed.
class TallyReceiver {
 public:
  static constexpr std::size_t kMaxConnections = 16;

  // Throws std::runtime_error that names the address at which nothing can be received.
  TallyReceiver(const config::TallyOptions& options, WallControl& control);
  ~TallyReceiver();
  TallyReceiver(const TallyReceiver&) = delete;
  TallyReceiver& operator=(const TallyReceiver&) = delete;

  // In the order of the options.
  std::vector<std::uint16_t> ports() const;

 private:
  class Receiving;

  const std::shared_ptr<Receiving> receiving_;  // shared with the callbacks of requests
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host::control
