// ChannelLife: what state a channel is in.
#pragma once

#include <algorithm>
#include <optional>
#include <string>

#include "host/units.h"

namespace host {

enum class ChannelState {
  kOpening,  // nothing was shown yet, and nothing has failed
  kLive,     // frames arrive
  kHeld,     // no frame arrives; holding the last frame
  kLost,     // no frame left to hold
};

// "opening", "live", "held", "lost".
const char* NameOf(ChannelState state);

// The state of one channel:
//
//      opening ----------------------- failed ----------------------+
//         |                                                         |
//       frame                                                       |
//         v                                                         v
//       live ---- failed, or no frame ----> held ---- hold over --> lost
//         ^           for a while            |                      |
//         +------------- frames -------------+------- frames -------+
//
// While held or lost, one frame is not enough, because late frames of a source that has ended may
// still arrive. Two consecutive ones make the channel live (of a slow source, one).
//
// A new reason while held or lost replaces the reason only; since stays. The caller passes the time
// (the wall's clock). No lock: one thread.
class ChannelLife {
 public:
  struct Status {
    ChannelState state = ChannelState::kOpening;
    std::string reason;  // of held and lost: one sentence, no full stop
    Time since = 0;      // of held and lost: time of the last frame, or else of the start
    bool operator==(const Status&) const = default;
  };

  // hold: how long the last frame is shown. now: when the channel started.
  ChannelLife(Time hold, Time now) : hold_(hold), status_{ChannelState::kOpening, {}, now} {}

  // Each returns whether the status has changed.
  //
  // A frame of the source with this duration is shown.
  bool Shown(Time now, Time duration);
  // A frame arrived too late to be shown or decoded: the machine is slow, not the source. Keeps a
  // live channel live, but does not make a channel live.
  void CameLate(Time now);
  // From now on a frame may last this long, even if its own duration is shorter.
  void Expect(Time duration) { expected_ = duration; }
  // The source failed or ended; everything that it sent before has been shown.
  bool Failed(const std::string& reason, Time now);
  // Time has passed.
  bool Tick(Time now);

  void SetHold(Time hold) { hold_ = hold; }
  const Status& status() const { return status_; }

 private:
  bool Become(ChannelState state, const std::string& reason, Time since);

  Time hold_;
  Status status_;
  std::optional<Time> lastFrame_;
  Time lastDuration_ = 0;
  Time expected_ = 0;
  std::optional<Time> straggler_;  // the latest frame while held or lost
  int stragglers_ = 0;             // in a row
};

}  // namespace host
