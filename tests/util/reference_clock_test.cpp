#include "util/reference_clock.h"

#include <limits>

#include <gtest/gtest.h>

namespace {

using qorp::Date;
using qorp::ReferenceClock;

constexpr std::int64_t kSecond = 10'000'000;
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

struct ManualClock {
  // The clock's time after its source has advanced by step.
  std::int64_t After(std::int64_t step) {
    raw += step;
    return clock->GetPrivateTime();
  }

  std::int64_t raw = 1000 * kSecond;
  ReferenceClock* const clock =
      new ReferenceClock("test clock", nullptr, nullptr, [this] { return raw; });
  const ComPtr<IReferenceClock> owner{static_cast<IReferenceClock*>(clock)};
};

TEST(ReferenceClock, RunsAtItsOffsetFromTheLastReadingOn) {
  ManualClock clock;
  EXPECT_EQ(clock.After(kSecond), 1001 * kSecond);
  const auto offsettable = clock.owner.As<IOffsettableClock>();
  EXPECT_EQ(offsettable->SetRateOffset(100), S_OK);
  EXPECT_EQ(clock.After(10 * kSecond), 1001 * kSecond + 100'010'000);
  EXPECT_EQ(offsettable->SetRateOffset(-500), E_FAIL) << "once and for all";
  EXPECT_EQ(clock.After(10 * kSecond), 1001 * kSecond + 200'020'000);
  // No step is lost to rounding, and a month is not too long.
  for (int i = 0; i < 999; ++i) {
    clock.After(1);
  }
  EXPECT_EQ(clock.After(1), 1001 * kSecond + 200'020'000 + 1000);
  const std::int64_t month = 30 * 86400 * kSecond;
  clock.raw = 1001 * kSecond;
  EXPECT_EQ(clock.After(month), 1001 * kSecond + month + month / 10000);
}

TEST(ReferenceClock, JumpsForwardWhenItsTimeSourceGoesBack) {
  const auto jumped = [](std::uint64_t back) {
    return static_cast<std::int64_t>(std::uint64_t{1000 * kSecond} + std::uint64_t{kMax} - back);
  };
  ManualClock clock;
  EXPECT_EQ(clock.After(-3), jumped(3));
  clock.raw = 2000;  // from there on it runs as before
  const REFERENCE_TIME base = clock.After(0);
  EXPECT_EQ(clock.After(500) - base, 500);
  // With an offset, 2^63 - 1 - 3 units have elapsed since the base. Times a million, that wraps in
  // 64 bits to minus 4 million: the clock jumps as if its source had gone back by 4.
  ManualClock another;
  EXPECT_EQ(another.clock->SetRateOffset(0), S_OK);
  EXPECT_EQ(another.After(-3), jumped(4));
}

TEST(Date, CountsFrom1601AndRefusesDatesThatDoNotExist) {
  const std::pair<os::SystemTime, std::int64_t> dates[] = {
      {{1601, 1, 0, 1, 0, 0, 0, 0}, 0},
      {{1970, 1, 0, 1, 0, 0, 0, 0}, 116444736000000000},
      {{2000, 2, 9, 29, 23, 59, 59, 999}, 125963423999990000},  // the day of the week is ignored
      {{30827, 12, 0, 31, 23, 59, 59, 999}, 9223149887999990000},
      {{1600, 12, 0, 31, 0, 0, 0, 0}, -1},
      {{2001, 2, 0, 29, 0, 0, 0, 0}, -1},
      {{2001, 13, 0, 1, 0, 0, 0, 0}, -1},
      {{2001, 0, 0, 1, 0, 0, 0, 0}, -1},
      {{2001, 1, 0, 1, 24, 0, 0, 0}, -1},
      {{2001, 1, 0, 1, 0, 60, 0, 0}, -1},
      {{2001, 1, 0, 1, 0, 0, 60, 0}, -1},
      {{2001, 1, 0, 1, 0, 0, 0, 1000}, -1},
      {{30828, 9, 0, 15, 0, 0, 0, 0}, -1},
  };
  for (const auto& [date, time] : dates) {
    std::int64_t read = -1;
    try {
      read = Date::ToFileTime(date);
    } catch (const Date::Exception& failure) {
      EXPECT_STREQ(failure.what(), "SystemTimeToFileTime failed");
    }
    EXPECT_EQ(read, time);
  }
}

}  // namespace
