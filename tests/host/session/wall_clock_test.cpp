#include "host/session/wall_clock.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace host {
namespace {

TEST(WallClockTest, StandsStillWhileItIsStoppedAndThenGoesOn) {
  std::atomic<Time> raw{500 * kSecond};
  WallClock clock([&] { return raw.load(); }, 0);
  raw += kSecond;
  clock.Start();
  EXPECT_EQ(clock.Now(), 0);
  raw += 3 * kSecond;
  EXPECT_EQ(clock.Now(), 3 * kSecond);
  clock.Stop();
  raw += 10 * kSecond;
  EXPECT_EQ(clock.Now(), 3 * kSecond);
  EXPECT_FALSE(clock.WaitUntil(0));
  clock.Start();
  raw += kSecond;
  EXPECT_EQ(clock.Now(), 4 * kSecond);
  EXPECT_TRUE(clock.WaitUntil(4 * kSecond)) << "that time has come";
  WallClock fast([&] { return raw.load(); }, 100);
  fast.Start();
  raw += 10 * kSecond;
  EXPECT_EQ(fast.Now(), 100'010'000);
}

TEST(WallClockTest, EndsAWaitForATimeThatDoesNotCome) {
  WallClock clock([] { return 500 * kSecond; }, 0);
  clock.Start();
  std::atomic<bool> waited{true};
  std::thread waiter([&] { waited = clock.WaitUntil(kSecond); });
  clock.Stop();
  waiter.join();
  EXPECT_FALSE(waited);
}

}  // namespace
}  // namespace host
