#include "util/reference_clock.h"

#include <limits>
#include <utility>

#include "platform/os/system_time.h"

namespace qorp {

std::int64_t Date::ToFileTime(const os::SystemTime& time) {
  const std::optional<std::int64_t> fileTime = os::SystemTimeToFileTime(time);
  if (!fileTime) {
    throw Exception("SystemTimeToFileTime failed");
  }
  return *fileTime;
}

namespace {

constexpr std::int64_t kUnitsPerMillisecond = 10000;
constexpr std::int64_t kMillion = 1000000;

__extension__ using Wide = __int128;

std::int64_t WallClock() {
  return Date::ToFileTime(os::CurrentSystemTime());
}

std::int64_t MultimediaTimer() {
  return os::MultimediaTimerMilliseconds() * kUnitsPerMillisecond;
}

// Sums that wrap instead of overflowing.
std::int64_t Sum(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

// The elapsed time. A time that went back is taken for one that has wrapped at 2^63.
std::int64_t Elapsed(std::int64_t from, std::int64_t to) {
  const auto difference =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from));
  return to < from ? Sum(difference, std::numeric_limits<std::int64_t>::max()) : difference;
}

}  // namespace

ComPtr<IReferenceClock> ReferenceClock::Create(bool useSystemTime) {
  return ComPtr<IReferenceClock>(
      new ReferenceClock("reference clock", nullptr, nullptr, useSystemTime));
}

ReferenceClock::ReferenceClock(const char* name, IUnknown* outer, HRESULT* hr, bool useSystemTime)
    : ReferenceClock(name, outer, hr, RawTime(useSystemTime ? &WallClock : &MultimediaTimer)) {}

ReferenceClock::ReferenceClock(const char* name, IUnknown* outer, HRESULT* hr, RawTime rawTime)
    : CBaseReferenceClock(name, outer, hr), rawTime_(std::move(rawTime)) {
  last_ = Adjust(rawTime_());
  accumulated_ = last_;
}

ReferenceClock::~ReferenceClock() {
  EndAdvising();
}

HRESULT ReferenceClock::NonDelegatingQueryInterface(REFIID iid, void** object) {
  if (iid == IID_IOffsettableClock) {
    return GetInterface(static_cast<IOffsettableClock*>(this), object);
  }
  return CBaseReferenceClock::NonDelegatingQueryInterface(iid, object);
}

std::int64_t ReferenceClock::Adjust(std::int64_t raw) {
  if (!offsetEnabled_) {
    base_ = raw;
    return raw;
  }
  const std::int64_t elapsed = Elapsed(base_, raw);
  const std::int64_t rate = rateOffset_ + kMillion;
  if (raw >= base_) {
    // After eleven days the product needs more than 64 bits.
    return Sum(base_, static_cast<std::int64_t>(static_cast<Wide>(elapsed) * rate / kMillion));
  }
  const auto product = static_cast<std::int64_t>(static_cast<std::uint64_t>(elapsed) *
                                                 static_cast<std::uint64_t>(rate));
  return Sum(base_, product / kMillion);
}

REFERENCE_TIME ReferenceClock::GetPrivateTime() {
  const os::MutexLock guard(lock_);
  const std::int64_t time = Adjust(rawTime_());
  accumulated_ = Sum(accumulated_, Elapsed(last_, time));
  last_ = time;
  return accumulated_;
}

HRESULT ReferenceClock::SetRateOffset(LONG ppm) {
  {
    const os::MutexLock guard(lock_);
    if (offsetEnabled_) {
      return E_FAIL;
    }
    rateOffset_ = ppm;
    offsetEnabled_ = true;
  }
  TriggerThread();
  return S_OK;
}

}  // namespace qorp
