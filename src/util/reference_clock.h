// qorp::Date: calendar times as 64-bit counts. qorp::ReferenceClock: the system's reference clock,
// and the interface that sets its rate.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/baseclasses/base_reference_clock.h"
#include "platform/com/com.h"
#include "platform/os/mutex.h"
#include "platform/os/system_time.h"
#include "util/exceptions.h"

namespace qorp {

class Date {
 public:
  using Exception = ExceptionTemplate<Date, TavrelException>;

  // 100 ns units since 1601-01-01. Throws Exception "SystemTimeToFileTime failed" for a date that
  // does not exist or cannot be expressed.
  static std::int64_t ToFileTime(const os::SystemTime& time);
};

}  // namespace qorp

inline constexpr IID IID_IOffsettableClock{
    0x841C7DCD, 0x69DD, 0x4D28, {0xA8, 0xB5, 0xDD, 0x0B, 0xD7, 0x5F, 0x1E, 0xFF}};

class IOffsettableClock : public IUnknown {
 public:
  // Lets the clock run ppm millionths faster (or, negative, slower) than its time source, from the
  // time it was last read on. Once for each clock: E_FAIL after that, and nothing changes.
  virtual HRESULT SetRateOffset(LONG ppm) = 0;

 protected:
  ~IOffsettableClock() = default;
};

template <>
struct InterfaceId<IOffsettableClock> {
  static constexpr const IID& value = IID_IOffsettableClock;
};

namespace qorp {

// A clock over the multimedia timer or over the wall clock (UTC), at a rate that can be trimmed.
//
// A time source that goes back, as a corrected wall clock does, makes the clock jump forward by
// what is left of 63 bits: filters that wait for a time would otherwise wait for it again after the
// clock has gone back.
//
// Counted by its users; any thread may call, and so does the clock's own thread for its advises.
class ReferenceClock final : public CBaseReferenceClock, public IOffsettableClock {
 public:
  DECLARE_IUNKNOWN

  // 100 ns units.
  using RawTime = std::function<std::int64_t()>;

  // A clock with one reference, over the wall clock or the multimedia timer.
  static ComPtr<IReferenceClock> Create(bool useSystemTime);
  ReferenceClock(const char* name, IUnknown* outer, HRESULT* hr, bool useSystemTime);
  // Over a time source of the caller, which is called with the clock's lock held.
  ReferenceClock(const char* name, IUnknown* outer, HRESULT* hr, RawTime rawTime);
  ~ReferenceClock() override;

  HRESULT NonDelegatingQueryInterface(REFIID iid, void** object) override;

  // File time (100 ns units since 1601-01-01) over the wall clock, otherwise time since the system
  // started, until the source goes back or the rate is trimmed.
  REFERENCE_TIME GetPrivateTime() override;
  HRESULT SetRateOffset(LONG ppm) override;

 private:
  std::int64_t Adjust(std::int64_t raw) REQUIRES(lock_);

  const RawTime rawTime_;
  os::Mutex lock_;
  bool offsetEnabled_ GUARDED_BY(lock_) = false;
  std::int64_t rateOffset_ GUARDED_BY(lock_) = 0;  // ppm
  std::int64_t base_ GUARDED_BY(lock_) = 0;        // raw time from which the offset counts
  std::int64_t last_ GUARDED_BY(lock_) = 0;        // adjusted time returned last
  std::int64_t accumulated_ GUARDED_BY(lock_) = 0;
};

}  // namespace qorp
