#include "util/reference_clock.h"

#include <limits>

#include <gtest/gtest.h>

namespace {

using qorp::ReferenceClock;

constexpr std::int64_t kSecond = 10'000'000;
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

class ReferenceClockTest : public testing::Test {
 protected:
  std::int64_t raw = 1000 * kSecond;
  ReferenceClock* const clock =
      new ReferenceClock("test clock", nullptr, nullptr, [this] { return raw; });
  const ComPtr<IReferenceClock> owner{static_cast<IReferenceClock*>(clock)};
};

TEST_F(ReferenceClockTest, RunsAtItsOffsetFromTheLastReadingOn) {
  raw += kSecond;
  EXPECT_EQ(clock->GetPrivateTime(), 1001 * kSecond);
  const auto offsettable = owner.As<IOffsettableClock>();
  ASSERT_TRUE(offsettable);
  EXPECT_EQ(offsettable->SetRateOffset(100), S_OK);
  raw += 10 * kSecond;
  EXPECT_EQ(clock->GetPrivateTime(), 1001 * kSecond + 100'010'000);
  // Once and for all.
  EXPECT_EQ(offsettable->SetRateOffset(-500), E_FAIL);
  raw += 10 * kSecond;
  EXPECT_EQ(clock->GetPrivateTime(), 1001 * kSecond + 200'020'000);
  // No step is lost to rounding, and a month is not too long.
  for (int i = 0; i < 1000; ++i) {
    raw += 1;
    clock->GetPrivateTime();
  }
  EXPECT_EQ(clock->GetPrivateTime(), 1001 * kSecond + 200'020'000 + 1000);
  const std::int64_t month = 30 * 86400 * kSecond;
  raw = 1001 * kSecond + month;
  EXPECT_EQ(clock->GetPrivateTime(), 1001 * kSecond + month + month / 10000);
}

TEST_F(ReferenceClockTest, RunsSlowerAtANegativeOffset) {
  EXPECT_EQ(clock->SetRateOffset(-250'000), S_OK);
  raw += 7;
  EXPECT_EQ(clock->GetPrivateTime(), 1000 * kSecond + 5);  // 5.25, towards zero
}

TEST_F(ReferenceClockTest, JumpsForwardWhenItsTimeSourceGoesBack) {
  raw -= 3;
  EXPECT_EQ(clock->GetPrivateTime(),
            static_cast<std::int64_t>(static_cast<std::uint64_t>(1000 * kSecond) +
                                      static_cast<std::uint64_t>(kMax) - 3));
  // From the new place on it goes as before.
  raw = 2000;
  const REFERENCE_TIME jumped = clock->GetPrivateTime();
  raw = 2500;
  EXPECT_EQ(clock->GetPrivateTime() - jumped, 500);
}

TEST_F(ReferenceClockTest, JumpsWithAnOffsetToo) {
  EXPECT_EQ(clock->SetRateOffset(0), S_OK);
  // Seen from its base the time has come round 2^63 - 1; in 64 bits, times a million, that is just
  // what it went back, and one unit more.
  raw -= 3;
  EXPECT_EQ(clock->GetPrivateTime(),
            static_cast<std::int64_t>(static_cast<std::uint64_t>(1000 * kSecond) +
                                      static_cast<std::uint64_t>(kMax) - 4));
}

TEST(ReferenceClockSources, AreTheWallClockAndTheMultimediaTimer) {
  const std::int64_t before = qorp::Date::ToFileTime(os::CurrentSystemTime());
  REFERENCE_TIME wall = 0;
  ASSERT_EQ(ReferenceClock::Create(true)->GetTime(&wall), S_OK);
  const std::int64_t after = qorp::Date::ToFileTime(os::CurrentSystemTime());
  EXPECT_GE(wall, before);
  EXPECT_LE(wall, after);
  EXPECT_GT(wall, 130'000'000'000'000'000);
  REFERENCE_TIME timer = 0;
  ASSERT_EQ(ReferenceClock::Create(false)->GetTime(&timer), S_OK);
  EXPECT_GE(timer, 0);
  EXPECT_LE(timer, (std::int64_t{1} << 32) * 10000);
  EXPECT_EQ(timer % 10000, 0);
}

TEST(Date, CountsFrom1601) {
  EXPECT_EQ(qorp::Date::ToFileTime({1601, 1, 0, 1, 0, 0, 0, 0}), 0);
  EXPECT_EQ(qorp::Date::ToFileTime({1970, 1, 0, 1, 0, 0, 0, 0}), 116444736000000000);
  // The day of the week is ignored; 2000 was a leap year.
  EXPECT_EQ(qorp::Date::ToFileTime({2000, 2, 9, 29, 23, 59, 59, 999}), 125963423999990000);
  EXPECT_EQ(qorp::Date::ToFileTime({30827, 12, 0, 31, 23, 59, 59, 999}), 9223149887999990000);
}

TEST(Date, RefusesDatesThatDoNotExist) {
  const os::SystemTime wrong[] = {
      {1600, 12, 0, 31, 0, 0, 0, 0}, {2001, 2, 0, 29, 0, 0, 0, 0},   {2001, 13, 0, 1, 0, 0, 0, 0},
      {2001, 0, 0, 1, 0, 0, 0, 0},   {2001, 1, 0, 1, 24, 0, 0, 0},   {2001, 1, 0, 1, 0, 60, 0, 0},
      {2001, 1, 0, 1, 0, 0, 60, 0},  {2001, 1, 0, 1, 0, 0, 0, 1000}, {30828, 9, 0, 15, 0, 0, 0, 0},
  };
  for (const os::SystemTime& time : wrong) {
    try {
      ADD_FAILURE() << "accepted as " << qorp::Date::ToFileTime(time);
    } catch (const qorp::Date::Exception& failure) {
      EXPECT_STREQ(failure.what(), "SystemTimeToFileTime failed");
    }
  }
}

}  // namespace
