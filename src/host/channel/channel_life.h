// ChannelLife: what state a channel is in.
#pragma once

#include <algorithm>
#include <optional>
#include <string>

#include "host/units.h"

namespace host {

enum class ChannelState {
  kOpening,  // nothing was shown yet, and nothing has failed
  kLive,     // frames come
  kHeld,     // no frame comes; holding the last frame
  kLost,     // no frame left to hold
};

// "opening", "live", "held", "lost".
const char* NameOf(ChannelState state);

// The state of one channel:
//
//                 failed                    frame
//      opening ------------> lost <------------------------+
//         |                    ^  |                         |
// frame |        hold is over|  |frame                  |
//         v                    |  v                         |
//       live <---------------- held                         |
//         |       frame       ^                           |
//         +---------------------+
//           failed, or no frame for a while
//
// Held or lost, one frame is not enough: frames of a source that has ended may still come late. Two
// that follow each other are (of slow sources, one).
//
// A new reason while held or lost changes the reason only: since stays the time of the trouble.
// Time comes in from outside (the wall's clock) and never runs here. No lock: one thread.
class ChannelLife {
 public:
  struct Status {
    ChannelState state = ChannelState::kOpening;
    std::string reason;  // of held and lost: one sentence, no full stop
    Time since = 0;      // of held and lost: when the last frame was there
    bool operator==(const Status&) const = default;
  };

  // hold: how long the last frame is shown. now: when the channel started.
  ChannelLife(Time hold, Time now) : hold_(hold), status_{ChannelState::kOpening, {}, now} {}

  // Each returns whether the status is another one now.
  //
  // A frame of the source is shown, of that duration.
  bool Shown(Time now, Time duration);
  // A frame came, too late to be shown or to be decoded: the machine is slow, not the source. Keeps
  // a live channel live, and makes none live.
  void CameLate(Time now);
  // From now on frames may be so long, whatever those say that still come.
  void Expect(Time duration) { expected_ = duration; }
  // The source failed or ended; whatever it gave before has been shown.
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
