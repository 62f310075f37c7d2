#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "host/session/wall_clock.h"

namespace host {
namespace {

// 2026-11-16 at 23:59:00 UTC and some seconds more.
TimeOfDay::SystemTime At(double seconds) {
  return TimeOfDay::SystemTime(
      std::chrono::milliseconds(1'794'873'540'000 + static_cast<std::int64_t>(seconds * 1000)));
}

TEST(TimeOfDayTest, FollowsTheTimeOfDayAndTellsAnotherDay) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  TimeOfDay clock;
  EXPECT_EQ(clock.Text(0, 0, At(30)), "23:59:30");
  EXPECT_EQ(clock.Text(0, 10 * kSecond, At(39.9)), "23:59:30") << "no flicker";
  EXPECT_EQ(clock.Text(0, 40 * kSecond, At(70)), "Nov 16 23:59:30");
  EXPECT_EQ(clock.Text(39 * kSecond, 40 * kSecond, At(70)), "00:00:09");
  // The time of day was set back; or the machine slept for an hour after all of it.
  EXPECT_EQ(clock.Text(39 * kSecond, 40 * kSecond, At(20)), "23:59:19");
  EXPECT_EQ(clock.Text(39 * kSecond, 40 * kSecond, At(3670)), "01:00:09");
}

}  // namespace
}  // namespace host
