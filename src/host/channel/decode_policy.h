// DecodePolicy: how much of its video a channel decodes.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "host/channel/source/stream_decoder.h"
#include "host/config/wall.h"
#include "host/units.h"

namespace host {

// "full", "unreferenced_unfiltered", "unfiltered", "referenced_only", "keyframes_only".
const char* NameOf(DecodeStep step);

// What the wall as a whole lacks: a level that rises with every observation since which frames were
// late or an encoder had to drop some, and falls again level by level, each after a quiet time. The
// first levels ask for steps of the channels that are not selected, the last ones of all. A
// selected channel that cannot keep up raises it as well: the others yield first.
//
// Observe belongs to one thread; any thread calls the rest.
class WallPressure {
 public:
  static constexpr int kMaxLevel = 2 * (kDecodeSteps - 1);

  // losses: frames lost since the wall's start. now: the wall's time.
  void Observe(Time now, std::uint64_t losses);
  // An important channel cannot keep up.
  void Complain(Time now);
  int level() const { return level_.load(std::memory_order_relaxed); }

 private:
  void Raise(Time now);

  std::atomic<int> level_{0};
  std::atomic<Time> changedAt_{0};
  std::uint64_t losses_ = 0;
};

// Decides the step of one channel from what its reader observes, about once a second.
//
// A reader that is busy all the time cannot keep up with its source: the channel goes up a step,
// and once its frames come late, at once to the step that by the usual costs keeps up: before they
// are too late to be shown, and before its audio is. A selected channel complains instead, which
// raises the wall's pressure. That raises the steps as well, those of selected channels last. The
// channel comes down a step when the lower one would leave time to spare for a while, and the
// machine has idle time for it. That while doubles each time a lower step did not last, so that a
// channel at the limit does not swing. What is then asked for most is taken, between the bounds of
// the setting:
//
//   setting     least                                                  most
//   full        full                                                   full
//   auto        full; unreferenced unfiltered where the window is      keyframes only
//               at most half the source in both directions
//   economy     referenced only                                        keyframes only
//   keyframes   keyframes only                                         keyframes only
//
// A window that is not shown needs keyframes only, whatever the setting but full. A source without
// keyframes is never decoded at that step for long.
//
// Owned and called by the channel's reader thread.
class DecodePolicy {
 public:
  struct Source {
    bool isReduced = false;  // the window is at most half of it in both directions
    double frameRate = 1;    // as a share of the canvas's
  };
  struct Load {
    double busy = 0;           // share of the time that was not spent waiting, 0 to 1
    double frames = 0;         // decoded a second, as a share of the canvas's frame rate
    int pressure = 0;          // WallPressure::level()
    bool isImportant = false;  // a selected channel
    bool isShown = true;
    bool isLate = false;  // frames come noticeably after their time
    bool gains = false;   // the reader is busy reading ahead, faster than the source plays
    // Whether that much of a processor may be used besides; null: it may.
    std::function<bool(double processors)> admits{};
  };

  explicit DecodePolicy(config::Decode setting) : setting_(setting) {}

  void SetSetting(config::Decode setting) { setting_ = setting; }
  // A source was opened. What the load asks for stays: it is that of the machine.
  void Opened(const Source& source, Time now);
  // True when the step has changed. now: of a clock that runs evenly, from call to call 0.2 s to
  // 2 s later.
  bool Observe(Time now, const Load& load);

  DecodeStep step() const { return step_; }
  // An important channel could not keep up: less is asked of it only when the others have yielded.
  bool complains() const { return complains_; }
  // The load asks for more than it did before.
  bool isOverloaded() const { return isRaised_; }
  // Why it is not decoded fully, as a clause; empty for kFull.
  const std::string& reason() const { return reason_; }

 private:
  void FollowLoad(Time now, const Load& load, int pressed);
  void Raise(Time now, int step, const char* reason);
  bool Take(DecodeStep step, std::string reason);

  config::Decode setting_;
  Source source_;
  DecodeStep step_ = DecodeStep::kFull;
  std::string reason_;
  DecodeStep most_ = DecodeStep::kKeyframesOnly;  // of this source
  int own_ = 0;                                   // the step for which the load asks
  const char* ownReason_ = "";
  bool complains_ = false;
  bool isRaised_ = false;
  int overloaded_ = 0;  // observations in a row
  Time relaxedSince_ = 0;
  Time loweredAt_ = 0;
  bool wasLowered_ = false;
  Time relief_ = 0;    // how long it has to be relaxed
  Time framesAt_ = 0;  // when it gave frames last
};

}  // namespace host
