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

TEST(WaitAny, TakesTheLowestSignalledIndexOfAnyNumberAndThatOneOnly) {
  std::vector<std::unique_ptr<Event>> events;
  std::vector<Waitable*> all;
  for (int i = 0; i < 100; ++i) {
    events.push_back(std::make_unique<Event>(Reset::kAuto, i == 7 || i == 3));
    all.push_back(events.back().get());
  }
  EXPECT_EQ(os::WaitAny(all, os::kInfinite), 3U);
  EXPECT_EQ(os::WaitAny(all, os::kInfinite), 7U);
  EXPECT_EQ(os::WaitAny(all, 0), os::kWaitTimeout);
  std::thread setter([&] { events.back()->Set(); });
  EXPECT_EQ(os::WaitAny(all, kLimit), 99U);
  setter.join();
  // What cannot be waited for.
  events[0]->Set();
  all[1] = nullptr;
  EXPECT_EQ(os::WaitAny({}, os::kInfinite), os::kWaitFailed);
  EXPECT_EQ(os::WaitAny(all, os::kInfinite), os::kWaitFailed);
  EXPECT_TRUE(events[0]->Wait(0)) << "nothing was consumed";
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
struct Marker {
  ~Marker() { atEnd(); }
  std::function<void()> atEnd;
};

TEST(Thread, HasLeftAllItsCodeWhenAWaitSucceedsForAllAndPermanently) {
  for (int round = 0; round < 30; ++round) {
    std::atomic<bool> last{false};
    Event go(Reset::kAuto);
    Thread thread(
        [&] {
          go.Wait(os::kInfinite);
          thread_local std::unique_ptr<Marker> atThreadEnd;
          atThreadEnd.reset(new Marker{[&] {
            for (int i = 0; i < 20; ++i) {
              std::this_thread::yield();
            }
            last = true;
          }});
        },
        "a name that is longer than the system takes");
    EXPECT_NE(thread.Id(), 0U);
    EXPECT_FALSE(thread.Wait(0));
    Event never(Reset::kAuto);
    const auto wait = [&] {
      const std::array<os::Waitable*, 2> both{&never, &thread};
      EXPECT_EQ(os::WaitAny(both, kLimit), 1U) << "the body did not end";
      EXPECT_TRUE(last) << "code of the thread ran on after the wait";
    };
    std::thread other(wait);
    go.Set();
    wait();
    other.join();
    wait();
  }
}

TEST(ThreadDeathTest, EndsTheProcessWhenItsBodyThrows) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(Thread(std::function<void()>()).Wait(os::kInfinite), "bad_function_call");
}

}  // namespace
