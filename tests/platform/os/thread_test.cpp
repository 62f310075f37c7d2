#include "platform/os/thread.h"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "platform/os/waitable.h"

namespace {

using os::Event;
using os::Thread;
using Reset = os::Event::Reset;

constexpr std::uint32_t kLimit = 30000;  // ms

// Calls when it is destroyed.
class Marker {
 public:
  explicit Marker(std::function<void()> atEnd) : atEnd_(std::move(atEnd)) {}
  ~Marker() { atEnd_(); }

 private:
  std::function<void()> atEnd_;
};

TEST(Thread, IsSignalledPermanentlyWhenItsBodyHasEnded) {
  Event go(Reset::kAuto);
  Thread thread([&] { go.Wait(os::kInfinite); }, "a name that is longer than the system takes");
  EXPECT_NE(thread.Id(), 0U);
  EXPECT_FALSE(thread.Wait(0));
  go.Set();
  EXPECT_TRUE(thread.Wait(kLimit)) << "the body did not end";
  EXPECT_TRUE(thread.Wait(0));
}

TEST(Thread, HasLeftAllItsCodeWhenAWaitSucceeds) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<bool> last{false};
    Thread thread([&] {
      thread_local std::unique_ptr<Marker> atThreadEnd;
      atThreadEnd = std::make_unique<Marker>([&] {
        for (int i = 0; i < 100; ++i) {
          std::this_thread::yield();
        }
        last = true;
      });
    });
    Event never(Reset::kAuto);
    const std::array<os::Waitable*, 2> both{&never, &thread};
    ASSERT_EQ(os::WaitAny(both, kLimit), 1U) << "the body did not end";
    EXPECT_TRUE(last) << "code of the thread ran on after the wait";
  }
}

TEST(Thread, CanBeWaitedForBySeveral) {
  Event go(Reset::kAuto);
  Thread thread([&] { go.Wait(os::kInfinite); });
  std::atomic<int> seen{0};
  const auto wait = [&] { seen += thread.Wait(kLimit) ? 1 : 0; };
  std::thread one(wait);
  std::thread two(wait);
  go.Set();
  wait();
  one.join();
  two.join();
  EXPECT_EQ(seen, 3);
}

TEST(Thread, ContinuesByItselfWhenDestroyedWhileRunning) {
  Event go(Reset::kAuto);
  Event gone(Reset::kAuto);
  auto alive = std::make_shared<Marker>([&] { gone.Set(); });
  {
    Thread thread([alive, &go] { go.Wait(os::kInfinite); });
    alive.reset();
  }
  EXPECT_FALSE(gone.Wait(0)) << "the body was destroyed under a running thread";
  go.Set();
  EXPECT_TRUE(gone.Wait(kLimit)) << "the body was not destroyed at its end";
}

TEST(ThreadDeathTest, EndsTheProcessWhenItsBodyThrows) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(Thread(std::function<void()>()).Wait(os::kInfinite), "bad_function_call");
}

}  // namespace
