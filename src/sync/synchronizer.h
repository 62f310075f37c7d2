// CSynchronizer converts the values of a wrapping tick counter to stream times; CSyncInputPin is an
// input pin whose samples set its reference.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/baseclasses/base_pin.h"
#include "platform/dshow/media.h"

// Converts counter values to stream times. Not a COM interface: the holder of the object owns it.
class ISyncSource {
 public:
  virtual ~ISyncSource() = default;
  // Has a reference been set?
  virtual bool IsSynchronized() = 0;
  // The stream time, in 100 ns units, at which the counter has that value.
  virtual REFERENCE_TIME ToReferenceTime(std::uint64_t ticks) = 0;
};

// Takes the reference.
class ISyncSink {
 public:
  virtual ~ISyncSink() = default;
  // The counter has the value `ticks` at the stream time `time` (100 ns units).
  virtual void SetReference(std::uint64_t ticks, REFERENCE_TIME time) = 0;
  virtual void ResetReference() = 0;
};

// Converts the values of a counter that runs at a fixed rate and wraps to 0 at a modulus. The
// reference is one value and the stream time at which it was seen; from there the shorter way round
// counts.
//
// Owned by its feeder. Every operation holds the lock, so that a streaming thread may set the
// reference while others convert.
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

inline constexpr GUID MEDIATYPE_TickReference{
    0xE58943E9, 0xF56E, 0x4991, {0x9D, 0xF0, 0xAE, 0x45, 0x28, 0xA7, 0xBE, 0x15}};
inline constexpr GUID MEDIASUBTYPE_TickReference{
    0xCF9DB4CD, 0xB1C9, 0x470C, {0xAB, 0xE4, 0xAA, 0xFE, 0x78, 0x8C, 0xB7, 0xDF}};

// Posted to the graph, without parameters, with the first reference after a start or a reset.
inline constexpr LONG kSynchronizedEvent = 0x8066;

// Feeds a synchroniser of its own and gives access to it. A sample carries
//
//   offset  size  field
//   0       8     counter value, unsigned, little-endian
//
// and its start time is the stream time of that value.
//
// Owned by its filter. Samples come on the upstream streaming thread; the ISyncSource interface may
// be called from any thread.
class CSyncInputPin final : public CBaseInputPin, public ISyncSource {
 public:
  // wrapTicks: the counter's modulus; tickRate: its ticks per second, not 0.
  CSyncInputPin(const char* objectName, CBaseFilter* filter, CCritSec* lock, HRESULT* hr,
                LPCWSTR name, std::uint64_t wrapTicks, std::uint64_t tickRate);

  HRESULT CheckMediaType(const CMediaType* type) override;
  HRESULT GetMediaType(int position, CMediaType* type) override;
  // E_FAIL for a sample that is not 8 bytes long; otherwise the result of the sample's accessors or
  // of posting the event. A sample that fails before the event leaves the reference as it was.
  HRESULT Receive(IMediaSample* sample) override;

  bool IsSynchronized() override { return synchronizer_.IsSynchronized(); }
  REFERENCE_TIME ToReferenceTime(std::uint64_t ticks) override {
    return synchronizer_.ToReferenceTime(ticks);
  }
  // The next reference counts as the first one again.
  void ResetReference() { synchronizer_.ResetReference(); }

 private:
  HRESULT PostSynchronized();

  CSynchronizer synchronizer_;
};
