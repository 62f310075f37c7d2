// CSynchronizer: the values of a wrapping tick counter as stream times.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/dshow/media_types.h"

// Where stream times come from. Not a COM interface: the holder of the object owns it.
class ISyncSource {
 public:
  virtual ~ISyncSource() = default;
  // Has a reference been set?
  virtual bool IsSynchronized() = 0;
  // The stream time, in 100 ns units, at which the counter has that value.
  virtual REFERENCE_TIME ToReferenceTime(std::uint64_t ticks) = 0;
};

// Where the reference comes in.
class ISyncSink {
 public:
  virtual ~ISyncSink() = default;
  // The counter has the value ticks at stream time time (100 ns units).
  virtual void SetReference(std::uint64_t ticks, REFERENCE_TIME time) = 0;
  virtual void ResetReference() = 0;
};

// Converts the values of a counter that runs at a fixed rate from 0 to a modulus and starts again,
// by the shorter way round from a reference: one value and the stream time at which it was seen.
//
// Owned by what feeds it. Its lock makes every operation one step, so that a streaming thread
// may set the reference while others convert.
class CSynchronizer final : public ISyncSource, public ISyncSink {
 public:
  // tickRate: ticks per second, 1 or more; std::invalid_argument for 0. wrapTicks: the counter's
  // modulus.
  CSynchronizer(std::uint64_t tickRate, std::uint64_t wrapTicks);

  bool IsSynchronized() override;
  // Counts from the reference that was set last, even after a reset. A time before stream time 0
  // is taken for one of the counter's next round.
  REFERENCE_TIME ToReferenceTime(std::uint64_t ticks) override;
  void SetReference(std::uint64_t ticks, REFERENCE_TIME time) override;
  void ResetReference() override;

  // One round of the counter in 100 ns units, rounded to the nearest.
  std::uint64_t wrapTime() const { return wrapTime_; }

 private:
  std::uint64_t Forward(std::uint64_t from, std::uint64_t to) const;

  // tickCount ticks are tickCount * unitsPerStep_ / ticksPerStep_ units of 100 ns.
  const std::uint64_t ticksPerStep_;
  const std::uint64_t unitsPerStep_;
  const std::uint64_t wrapTicks_;
  const std::uint64_t wrapTime_;

  std::mutex lock_;
  bool synchronized_ = false;  // guarded by lock_, as is all below
  REFERENCE_TIME referenceTime_ = 0;
  std::uint64_t referenceTicks_ = 0;
};
