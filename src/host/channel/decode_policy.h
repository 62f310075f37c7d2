// How much of a wall's video is decoded: by each channel (DecodePolicy), by what the wall lacks
// (WallPressure), and by all readers at the same time, live (DecodeBudget) and rendered
// (DecodeBatches).
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

// Shared by the readers of a live wall, for two things.
//
// Turns: no more readers decode and scale at the same time than there are processors. All others
// wait here rather than in the system's scheduler, where sixteen of them together would outweigh
// one encoder however low their priority; and here the selected channels come first, then the one
// that has waited longest. Nothing but computing is done in a turn.
//
// Admission: a channel that wants to decode more than it does asks first. It is granted as long as
// the machine has idle time for it, less what was granted lately and does not show yet. So channels
// come back one after the other, instead of all together into the next overload. A machine without
// idle time may still give it, where what else runs has a lower priority: then one channel at a
// time tries, and the time between tries doubles while they fail.
//
// Any thread.
class DecodeBudget {
 public:
  struct Settings {
    int processors = 1;
    // Idle time of all processors together since some moment, in 100 ns.
    std::function<std::uint64_t()> idleTime;
  };
  // Of this machine.
  static Settings Machine();

  explicit DecodeBudget(Settings settings);
  DecodeBudget(const DecodeBudget&) = delete;
  DecodeBudget& operator=(const DecodeBudget&) = delete;

  // Ends with its life; does not outlive the budget.
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
  // Waits for others to end theirs.
  Turn TakeTurn(bool isImportant);
  // How many wait for one.
  std::size_t waiting() const {
    const os::MutexLock guard(lock_);
    return important_.size() + others_.size();
  }

  // Whether a channel may use that much of a processor besides. from: its step, of which the
  // highest come first. now: of a clock that runs evenly.
  bool Admit(Time now, double processors, DecodeStep from, bool isImportant);
  // A channel cannot keep up, or the wall lacks something.
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
  // The idle time since the machine started, when it is time to ask for it.
  std::optional<std::uint64_t> AskIdleTime(Time now);
  bool HasRoom(Time now, double processors) REQUIRES(lock_);
  // A channel that decodes less was refused lately.
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

// The place of one channel in it. Outlives the channel's turns; any thread.
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
  // The channel has something to decode, and waits for its turn.
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

// A rendered wall reads its files as fast as the machine can. Were all its readers to decode a
// frame in turns, each frame would have left the processor's caches when it is scaled, and the
// frames that it refers to when it is decoded. So a reader decodes many frames in one turn, and no
// more readers have a turn than there are processors.
//
// Shared by the readers of one wall. Any thread.
class DecodeBatches {
 public:
  explicit DecodeBatches(int processors) : free_(processors) {}
  DecodeBatches(const DecodeBatches&) = delete;
  DecodeBatches& operator=(const DecodeBatches&) = delete;

  // Ends with its life; does not outlive the batches.
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
  // Waits for another to end, but not for one that lasts: it may wait itself, for its disk or for
  // what this reader has to give first.
  Turn Take();

 private:
  static constexpr std::chrono::milliseconds kMaxWait{1000};

  void EndTurn();

  os::Mutex lock_;
  os::ConditionVariable ended_;
  int free_ GUARDED_BY(lock_);  // negative: some were not waited for
};

}  // namespace host
