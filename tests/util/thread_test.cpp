#include "util/thread.h"

#include <memory>

#include <gtest/gtest.h>

#include "platform/os/waitable.h"

namespace {

using os::Event;

constexpr std::uint32_t kLimit = 30000;  // ms

TEST(Thread, RunsItsBodyAndIsWaitedForByItsHandle) {
  bool ran = false;
  qorp::Thread thread([&] { ran = true; });
  ASSERT_TRUE(thread.Handle().Wait(kLimit)) << "the body did not end";
  EXPECT_TRUE(ran);
}

TEST(Thread, IsDestroyedWithoutWaitingForItsBody) {
  Event go(Event::Reset::kAuto);
  Event ended(Event::Reset::kAuto);
  {
    const qorp::Thread thread([&] {
      go.Wait(os::kInfinite);
      ended.Set();
    });
  }
  EXPECT_FALSE(ended.Wait(0));
  go.Set();
  EXPECT_TRUE(ended.Wait(kLimit)) << "the body did not go on";
}

}  // namespace
