#include "platform/os/waitable.h"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os/thread.h"

namespace {

using os::Event;
using os::Semaphore;
using os::Waitable;
using Reset = os::Event::Reset;

constexpr std::uint32_t kLimit = 30000;  // ms; far beyond what any of these waits needs

TEST(Event, AutomaticLetsOneWaitPassForEachTimeItIsSet) {
  Event event(Reset::kAuto);
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Clear();
  EXPECT_FALSE(event.Wait(1));
}

TEST(Event, ManualStaysSetUntilCleared) {
  Event event(Reset::kManual, true);
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait(os::kInfinite));
  event.Clear();
  EXPECT_FALSE(event.Wait(0));
}

TEST(Semaphore, CountsUpToItsMaximum) {
  Semaphore semaphore(1, 3);
  EXPECT_TRUE(semaphore.Release(2));
  EXPECT_FALSE(semaphore.Release());
  EXPECT_TRUE(semaphore.Wait(0));
  EXPECT_FALSE(semaphore.Release(2)) << "3 is the maximum, 2 are left";
  EXPECT_FALSE(semaphore.Release(0));
  EXPECT_TRUE(semaphore.Wait(0));
  EXPECT_TRUE(semaphore.Wait(0));
  EXPECT_FALSE(semaphore.Wait(0));
  EXPECT_THROW(Semaphore(2, 1), std::invalid_argument);
  EXPECT_THROW(Semaphore(0, 0), std::invalid_argument);
}

TEST(WaitAny, TakesTheLowestSignalledIndexAndThatOneOnly) {
  Event first(Reset::kAuto);
  Semaphore second(1);
  Event third(Reset::kAuto, true);
  const std::array<Waitable*, 3> all{&first, &second, &third};
  EXPECT_EQ(os::WaitAny(all, os::kInfinite), 1U);
  EXPECT_EQ(os::WaitAny(all, os::kInfinite), 2U);
  EXPECT_EQ(os::WaitAny(all, 0), os::kWaitTimeout);
  third.Set();
  first.Set();
  EXPECT_EQ(os::WaitAny(all, 0), 0U);
  EXPECT_TRUE(third.Wait(0));
}

TEST(WaitAny, FailsOnWhatCannotBeWaitedFor) {
  Event event(Reset::kAuto, true);
  const std::array<Waitable*, 2> withNull{&event, nullptr};
  EXPECT_EQ(os::WaitAny({}, os::kInfinite), os::kWaitFailed);
  EXPECT_EQ(os::WaitAny(withNull, os::kInfinite), os::kWaitFailed);
  EXPECT_TRUE(event.Wait(0)) << "nothing was consumed";
}

TEST(WaitAny, TakesAnyNumberOfObjects) {
  std::vector<std::unique_ptr<Event>> events;
  std::vector<Waitable*> all;
  for (int i = 0; i < 100; ++i) {
    events.push_back(std::make_unique<Event>(Reset::kAuto));
    all.push_back(events.back().get());
  }
  std::thread setter([&] { events.back()->Set(); });
  EXPECT_EQ(os::WaitAny(all, kLimit), 99U);
  setter.join();
}

// Every token wakes exactly one of several waiters, whatever else they wait for.
TEST(WaitAny, GivesEachTokenToExactlyOneWaiter) {
  constexpr int kTokens = 2000;
  constexpr int kWaiters = 4;
  Event quit(Reset::kManual);
  Semaphore tokens(0);
  Event handedOver(Reset::kAuto);
  std::atomic<int> taken{0};
  std::atomic<int> handed{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      const std::array<Waitable*, 3> all{&handedOver, &tokens, &quit};
      while (true) {
        const std::uint32_t index = os::WaitAny(all, kLimit);
        ASSERT_LE(index, 2U) << "waited too long for a token or for the end";
        if (index == 2) {
          return;
        }
        (index == 0 ? handed : taken).fetch_add(1);
      }
    });
  }
  for (int i = 0; i < kTokens; ++i) {
    EXPECT_TRUE(tokens.Release());
  }
  // An event that is set again only after it was taken is taken as often as it was set.
  for (int i = 0; i < kTokens; ++i) {
    handedOver.Set();
    while (handed.load() <= i) {
      std::this_thread::yield();
    }
  }
  quit.Set();
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
  EXPECT_EQ(handed, kTokens);
  while (tokens.Wait(0)) {
    ++taken;
  }
  EXPECT_EQ(taken, kTokens);
}

using os::Thread;

// Calls when it is destroyed.
class Marker {
 public:
  explicit Marker(std::function<void()> atEnd) : atEnd_(std::move(atEnd)) {}
  ~Marker() { atEnd_(); }

 private:
  std::function<void()> atEnd_;
};

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

TEST(Thread, IsSignalledToAllAndPermanentlyWhenItsBodyHasEnded) {
  Event go(Reset::kAuto);
  Thread thread([&] { go.Wait(os::kInfinite); }, "a name that is longer than the system takes");
  EXPECT_NE(thread.Id(), 0U);
  EXPECT_FALSE(thread.Wait(0));
  std::atomic<int> seen{0};
  const auto wait = [&] { seen += thread.Wait(kLimit) ? 1 : 0; };
  std::thread one(wait);
  std::thread two(wait);
  go.Set();
  wait();
  one.join();
  two.join();
  EXPECT_EQ(seen, 3);
  EXPECT_TRUE(thread.Wait(0));
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
