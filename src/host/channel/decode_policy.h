// How much of a wall's video is decoded: the decision of each channel (DecodePolicy), the overload
// of the wall (WallPressure), and what all readers decode at the same time, in a live wall
// (DecodeBudget) and in a rendered one (DecodeBatches).
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/channel/source/stream_decoder.h"
#include "host/config/wall.h"
#include "host/units.h"
#include "platform/os/mutex.h"

namespace host {

// "full", "unreferenced_unfiltered", "unfiltered", "referenced_only", "keyframes_only".
const char* NameOf(DecodeStep step);

// The overload of the wall as a whole: a level that rises with every observation that finds new
// losses (late frames, or frames that an encoder had to drop), and falls level by level, each after
// a quiet time. The first levels raise the steps of the channels that are not selected, the last
// ones those of all. A selected channel that cannot keep up raises the level as well, so that the
// others yield first.
//
// Observe is called by one thread, the rest by any thread.
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
// A reader that is busy all the time cannot keep up with its source: the channel goes up a step. If
// its frames are already late, it goes at once to the step that will keep up by the usual costs,
// before its frames and audio are too late to be used. A selected channel complains instead, which
// raises the wall's pressure. The pressure raises the steps as well, those of selected channels
// last. The channel goes down a step when the lower one would have left time to spare for a while
// and the machine has idle time for it. That while doubles each time a lower step did not last, so
// that a channel at its limit does not oscillate. Of all the steps asked for, the highest is taken,
// between the bounds of the setting:
//
//   setting     least                                                  most
//   full        full                                                   full
//   auto        full; unreferenced unfiltered where the window is      keyframes only
//               at most half the source in both directions
//   economy     referenced only                                        keyframes only
//   keyframes   keyframes only                                         keyframes only
//
// A window that is not shown needs keyframes only, with every setting except full. A source without
// keyframes does not stay at that step for long.
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
    bool isLate = false;  // frames are noticeably late
    bool gains = false;   // the reader is busy reading ahead, faster than the source plays
    // Whether this share of a processor may be used in addition; null: yes.
    std::function<bool(double processors)> admits{};
  };

  explicit DecodePolicy(config::Decode setting) : setting_(setting) {}

  void SetSetting(config::Decode setting) { setting_ = setting; }
  // A source was opened. The step that the load asks for stays, because the machine is the same.
  void Opened(const Source& source, Time now);
  // True when the step has changed. now: of a steady clock; calls are 0.2 s to 2 s apart.
  bool Observe(Time now, const Load& load);

  DecodeStep step() const { return step_; }
  // An important channel cannot keep up: its step rises only when the others have yielded.
  bool complains() const { return complains_; }
  // The load asks for more than it did before.
  bool isOverloaded() const { return isRaised_; }
  // Why the video is not decoded fully, as a clause; empty for kFull.
  const std::string& reason() const { return reason_; }

 private:
  void FollowLoad(Time now, const Load& load, int pressed);
  void Raise(Time now, int step, const char* reason);
  bool Take(DecodeStep step, std::string reason);

  config::Decode setting_;
  Source source_;
  DecodeStep step_ = DecodeStep::kFull;
  std::string reason_;
  DecodeStep most_ = DecodeStep::kKeyframesOnly;  // highest step for this source
  int own_ = 0;                                   // the step that the load asks for
  const char* ownReason_ = "";
  bool complains_ = false;
  bool isRaised_ = false;
  int overloaded_ = 0;  // observations in a row
  Time relaxedSince_ = 0;
  Time loweredAt_ = 0;
  bool wasLowered_ = false;
  Time relief_ = 0;    // how long the load has to be low
  Time framesAt_ = 0;  // when frames were decoded last
};

// Shared by the readers of a live wall, for two things.
//
// Turns: no more readers decode and scale at the same time than there are processors. All others
// wait here rather than in the system's scheduler, where sixteen of them together would outweigh
// one encoder even at low priority. Selected channels come first, then the one that has waited
// longest. A reader only computes in its turn; it never waits.
//
// Admission: a channel that is to decode more asks first. It is admitted if the machine has idle
// time for it, less what was granted recently and does not show in the idle time yet. So channels
// come back one after the other, not all together into the next overload. A machine without idle
// time may still have room, if what else runs has a lower priority: then one channel at a time
// tries, and the time between tries doubles while they fail.
//
// Any thread.
class DecodeBudget {
 public:
  struct Settings {
    int processors = 1;
    // Idle time of all processors together, from any starting point, in 100 ns.
    std::function<std::uint64_t()> idleTime;
  };
  // Of this machine.
  static Settings Machine();

  explicit DecodeBudget(Settings settings);
  DecodeBudget(const DecodeBudget&) = delete;
  DecodeBudget& operator=(const DecodeBudget&) = delete;

  // Ends when it is destroyed; does not outlive the budget.
  class [[nodiscard]] Turn {
   public:
    Turn() = default;
    explicit Turn(DecodeBudget& budget) : budget_(&budget) {}
    Turn(Turn&& other) noexcept : budget_(std::exchange(other.budget_, nullptr)) {}
    Turn& operator=(Turn&&) = delete;
    ~Turn() {
      if (budget_ != nullptr) {
        budget_->EndTurn();
      }
    }

   private:
    DecodeBudget* budget_ = nullptr;
  };
  // Waits until a turn is free.
  Turn TakeTurn(bool isImportant);
  // How many wait for a turn.
  std::size_t waiting() const {
    const os::MutexLock guard(lock_);
    return important_.size() + others_.size();
  }

  // Whether a channel may use this share of a processor in addition. from: its present step; the
  // highest come first. now: of a steady clock.
  bool Admit(Time now, double processors, DecodeStep from, bool isImportant);
  // A channel cannot keep up, or the wall is overloaded.
  void NoteOverload(Time now);

 private:
  struct Waiting {
    bool hasTurn = false;
    os::ConditionVariable wake;
  };
  struct Grant {
    Time at = 0;
    double processors = 0;
  };

  void EndTurn();
  // The machine's idle time so far, if it is time to read it again.
  std::optional<std::uint64_t> AskIdleTime(Time now);
  bool HasRoom(Time now, double processors) REQUIRES(lock_);
  // A channel that decodes less was refused recently.
  bool IsAheadOfOthers(Time now, DecodeStep from) const REQUIRES(lock_);
  void NoteIdleTime(Time now, std::uint64_t idleTime) REQUIRES(lock_);

  const Settings settings_;
  mutable os::Mutex lock_;
  int free_ GUARDED_BY(lock_);
  std::deque<Waiting*> important_ GUARDED_BY(lock_);
  std::deque<Waiting*> others_ GUARDED_BY(lock_);
  std::deque<Grant> grants_ GUARDED_BY(lock_);
  double idle_ GUARDED_BY(lock_) = 0;  // processors
  std::uint64_t idleTime_ GUARDED_BY(lock_) = 0;
  Time measuredAt_ GUARDED_BY(lock_) = 0;
  std::array<std::optional<Time>, kDecodeSteps> refusedAt_ GUARDED_BY(lock_);
  std::optional<Time> askedAt_ GUARDED_BY(lock_);
  bool isMeasured_ GUARDED_BY(lock_) = false;
  Time overloadedAt_ GUARDED_BY(lock_) = 0;
  Time triedAt_ GUARDED_BY(lock_) = 0;
  Time tryEvery_ GUARDED_BY(lock_);
  bool isTrying_ GUARDED_BY(lock_) = false;
};

// One channel's access to the budget. Outlives the channel's turns; any thread.
class DecodeSeat {
 public:
  DecodeSeat(std::shared_ptr<DecodeBudget> budget, bool isImportant)
      : budget_(std::move(budget)), isImportant_(isImportant) {}

  DecodeBudget::Turn TakeTurn() {
    waits_ = true;
    DecodeBudget::Turn turn = budget_->TakeTurn(isImportant_);
    waits_ = false;
    return turn;
  }
  // Any thread.
  void SetImportant(bool isImportant) { isImportant_ = isImportant; }
  // The channel has something to decode and waits for its turn.
  bool waits() const { return waits_; }
  bool Admit(Time now, double processors, DecodeStep from) {
    return budget_->Admit(now, processors, from, isImportant_);
  }
  void NoteOverload(Time now) { budget_->NoteOverload(now); }

 private:
  const std::shared_ptr<DecodeBudget> budget_;
  std::atomic<bool> isImportant_;
  std::atomic<bool> waits_{false};
};

// A rendered wall reads its files as fast as the machine can. If all its readers decoded one frame
// each in turn, a frame would have left the processor's caches before it is scaled, and its
// reference frames before it is decoded. So a reader decodes many frames in one turn, and no more
// readers have a turn than there are processors.
//
// Shared by the readers of one wall. Any thread.
class DecodeBatches {
 public:
  explicit DecodeBatches(int processors) : free_(processors) {}
  DecodeBatches(const DecodeBatches&) = delete;
  DecodeBatches& operator=(const DecodeBatches&) = delete;

  // Ends when it is destroyed; does not outlive the batches.
  class [[nodiscard]] Turn {
   public:
    Turn() = default;
    explicit Turn(DecodeBatches& batches) : batches_(&batches) {}
    Turn(Turn&& other) noexcept : batches_(std::exchange(other.batches_, nullptr)) {}
    Turn& operator=(Turn&& other) noexcept {
      End();
      batches_ = std::exchange(other.batches_, nullptr);
      return *this;
    }
    ~Turn() { End(); }

    explicit operator bool() const { return batches_ != nullptr; }
    void End() {
      if (DecodeBatches* const batches = std::exchange(batches_, nullptr)) {
        batches->EndTurn();
      }
    }

   private:
    DecodeBatches* batches_ = nullptr;
  };
  // Waits for another turn to end, but at most kMaxWait: its reader may itself wait, for its disk
  // or for items that this reader has to deliver first.
  Turn Take();

 private:
  static constexpr std::chrono::milliseconds kMaxWait{1000};

  void EndTurn();

  os::Mutex lock_;
  os::ConditionVariable ended_;
  int free_ GUARDED_BY(lock_);  // negative: some turns began after kMaxWait
};

}  // namespace host
