#include "util/reference_clock.h"

#include <atomic>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "platform/os/waitable.h"

namespace {

using qorp::ReferenceClock;

constexpr std::int64_t kSecond = 10'000'000;
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

class ReferenceClockTest : public testing::Test {
 protected:
  std::atomic<std::int64_t> raw{1000 * kSecond};
  ReferenceClock* const clock =
      new ReferenceClock("test clock", nullptr, nullptr, [this] { return raw.load(); });
  const ComPtr<IReferenceClock> owner{static_cast<IReferenceClock*>(clock)};
};

TEST_F(ReferenceClockTest, FollowsItsTimeSource) {
  EXPECT_EQ(clock->GetPrivateTime(), 1000 * kSecond);
  raw += 5 * kSecond;
  EXPECT_EQ(clock->GetPrivateTime(), 1005 * kSecond);
  REFERENCE_TIME time = 0;
  EXPECT_EQ(owner->GetTime(&time), S_OK);
  EXPECT_EQ(time, 1005 * kSecond);
}

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

TEST_F(ReferenceClockTest, LeapsForwardWhenItsTimeSourceGoesBack) {
  raw -= 3;
  EXPECT_EQ(clock->GetPrivateTime(),
            static_cast<std::int64_t>(static_cast<std::uint64_t>(1000 * kSecond) +
                                      static_cast<std::uint64_t>(kMax) - 3));
  // From the new place on it goes as before.
  raw = 2000;
  const REFERENCE_TIME leapt = clock->GetPrivateTime();
  raw = 2500;
  EXPECT_EQ(clock->GetPrivateTime() - leapt, 500);
}

TEST_F(ReferenceClockTest, LeapsWithAnOffsetToo) {
  EXPECT_EQ(clock->SetRateOffset(0), S_OK);
  // Seen from its base the time has come round 2^63 - 1; in 64 bits, times a million, that is just
  // what it went back, and one unit more.
  raw -= 3;
  EXPECT_EQ(clock->GetPrivateTime(),
            static_cast<std::int64_t>(static_cast<std::uint64_t>(1000 * kSecond) +
                                      static_cast<std::uint64_t>(kMax) - 4));
}

TEST_F(ReferenceClockTest, ShowsOneSequenceToAllThreads) {
  constexpr int kReadings = 20000;
  std::thread mover([&] {
    for (int i = 0; i < kReadings; ++i) {
      raw += 10;
      if (i == kReadings / 2) {
        clock->SetRateOffset(1000);
      }
    }
  });
  const auto readAll = [&] {
    REFERENCE_TIME before = 0;
    for (int i = 0; i < kReadings; ++i) {
      const REFERENCE_TIME now = clock->GetPrivateTime();
      ASSERT_GE(now, before);
      ASSERT_LT(now, 1001 * kSecond);
      before = now;
    }
  };
  std::thread reader(readAll);
  readAll();
  reader.join();
  mover.join();
}

TEST_F(ReferenceClockTest, SignalsAdvisesByItsOwnTime) {
  os::Event due(os::Event::Reset::kAuto);
  DWORD_PTR cookie = 0;
  ASSERT_EQ(owner->AdviseTime(1000 * kSecond, kSecond, &due, &cookie), S_OK);
  EXPECT_FALSE(due.Wait(0));
  raw += kSecond;
  clock->TriggerThread();
  EXPECT_TRUE(due.Wait(10000)) << "the advise was due at once";
  owner->Unadvise(cookie);  // the clock's thread has let go of the event after this
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

TEST(ReferenceClockSources, AnswerBothInterfacesOfOneObject) {
  const auto clock = ReferenceClock::Create(false);
  const auto offsettable = clock.As<IOffsettableClock>();
  ASSERT_TRUE(offsettable);
  EXPECT_TRUE(IsSameObject(clock.Get(), offsettable.Get()));
  EXPECT_EQ(GuidToString(IID_IOffsettableClock), "{841C7DCD-69DD-4D28-A8B5-DD0BD75F1EFF}");
}

}  // namespace
