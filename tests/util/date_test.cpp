#include <gtest/gtest.h>

#include "util/reference_clock.h"

namespace {

using os::SystemTime;
using qorp::Date;

TEST(Date, CountsFrom1601) {
  EXPECT_EQ(Date::ToFileTime({1601, 1, 0, 1, 0, 0, 0, 0}), 0);
  EXPECT_EQ(Date::ToFileTime({1970, 1, 0, 1, 0, 0, 0, 0}), 116444736000000000);
  // The day of the week is not looked at; 2000 was a leap year.
  EXPECT_EQ(Date::ToFileTime({2000, 2, 9, 29, 23, 59, 59, 999}), 125963423999990000);
  EXPECT_EQ(Date::ToFileTime({30827, 12, 0, 31, 23, 59, 59, 999}), 9223149887999990000);
}

TEST(Date, RefusesDatesThatDoNotExist) {
  const SystemTime wrong[] = {
      {1600, 12, 0, 31, 0, 0, 0, 0}, {2001, 2, 0, 29, 0, 0, 0, 0},   {2001, 13, 0, 1, 0, 0, 0, 0},
      {2001, 0, 0, 1, 0, 0, 0, 0},   {2001, 1, 0, 1, 24, 0, 0, 0},   {2001, 1, 0, 1, 0, 60, 0, 0},
      {2001, 1, 0, 1, 0, 0, 60, 0},  {2001, 1, 0, 1, 0, 0, 0, 1000}, {30828, 9, 0, 15, 0, 0, 0, 0},
  };
  for (const SystemTime& time : wrong) {
    try {
      ADD_FAILURE() << "accepted as " << Date::ToFileTime(time);
    } catch (const Date::Exception& failure) {
      EXPECT_STREQ(failure.what(), "SystemTimeToFileTime failed");
    }
  }
}

TEST(Date, AgreesWithTheWallClock) {
  const os::WallTime before = os::CurrentWallTime();
  const std::int64_t now = Date::ToFileTime(os::CurrentSystemTime());
  const os::WallTime after = os::CurrentWallTime();
  const auto toFileTime = [](const os::WallTime& time) {
    return (time.seconds * 1000 + time.milliseconds) * 10000 + 116444736000000000;
  };
  EXPECT_LE(toFileTime(before), now);
  EXPECT_LE(now, toFileTime(after));
}

}  // namespace
