#include <atomic>

#include <gtest/gtest.h>

#include "platform/baseclasses/base_reference_clock.h"
#include "platform/com/com.h"
#include "platform/os/thread.h"

namespace {

constexpr std::uint32_t kLimit = 10000;  // milliseconds

// Its time is what the test sets.
class ManualClock final : public CBaseReferenceClock {
 public:
  ManualClock() : CBaseReferenceClock("manual clock", nullptr, nullptr) {}
  ~ManualClock() override { EndAdvising(); }
  REFERENCE_TIME GetPrivateTime() override { return now_; }
  void MoveTo(REFERENCE_TIME time) {
    now_ = time;
    TriggerThread();
  }

 private:
  std::atomic<REFERENCE_TIME> now_{1000};
};

class ReferenceClockBaseTest : public testing::Test {
 protected:
  ManualClock* clock_ = std::make_unique<ManualClock>().release();
  ComPtr<IReferenceClock> owner_{static_cast<IReferenceClock*>(clock_)};
  os::Event event_{os::Event::Reset::kAuto};
  os::Semaphore semaphore_{0};
  DWORD_PTR cookie_ = 0;
};

TEST_F(ReferenceClockBaseTest, NeverShowsATimeThatGoesBack) {
  REFERENCE_TIME time = 0;
  EXPECT_EQ(clock_->GetTime(&time), S_OK);
  EXPECT_EQ(time, 1000);
  clock_->MoveTo(900);
  EXPECT_EQ(clock_->GetTime(&time), S_FALSE);
  EXPECT_EQ(time, 1000);
  clock_->MoveTo(1001);
  EXPECT_EQ(clock_->GetTime(&time), S_OK);
  EXPECT_EQ(time, 1001);
}

TEST_F(ReferenceClockBaseTest, SignalsEachAdviseWhenItsTimeHasCome) {
  EXPECT_EQ(clock_->AdviseTime(0, 0, &event_, &cookie_), E_INVALIDARG);
  EXPECT_EQ(clock_->AdvisePeriodic(0, 10, &semaphore_, &cookie_), E_INVALIDARG);
  EXPECT_EQ(clock_->AdvisePeriodic(10, 0, &semaphore_, &cookie_), E_INVALIDARG);
  EXPECT_EQ(cookie_, 0U);
  ASSERT_EQ(clock_->AdviseTime(1000, 700, &event_, &cookie_), S_OK);
  clock_->MoveTo(1699);
  EXPECT_FALSE(event_.Wait(0));
  clock_->MoveTo(1700);
  EXPECT_TRUE(event_.Wait(kLimit)) << "the event was never set";
  EXPECT_EQ(clock_->Unadvise(cookie_), S_FALSE) << "it is over";
  ASSERT_EQ(clock_->AdvisePeriodic(2000, 100, &semaphore_, &cookie_), S_OK);
  clock_->MoveTo(2250);  // 2000, 2100 and 2200
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(semaphore_.Wait(kLimit)) << "period " << i << " was not signalled";
  }
  EXPECT_FALSE(semaphore_.Wait(0));
  EXPECT_EQ(clock_->Unadvise(cookie_), S_OK);
  clock_->MoveTo(5000);
  ASSERT_EQ(clock_->AdviseTime(5000, 0, &event_, &cookie_), S_OK);
  EXPECT_TRUE(event_.Wait(kLimit)) << "an event in the past is set at once";
  EXPECT_FALSE(semaphore_.Wait(0)) << "nothing comes after Unadvise";
}

}  // namespace
