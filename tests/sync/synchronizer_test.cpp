#include "sync/synchronizer.h"

#include <limits>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

constexpr std::uint64_t kVideoClock = 90000;
constexpr std::uint64_t kVideoWrap = std::uint64_t{1} << 33;

TEST(Synchronizer, CountsFromItsReferenceBothWaysAndKeepsItOverAReset) {
  CSynchronizer sync(kVideoClock, kVideoWrap);
  EXPECT_FALSE(sync.IsSynchronized());
  EXPECT_EQ(sync.wrapTime(), 954437176889U);
  sync.SetReference(1000, 5000000);
  EXPECT_TRUE(sync.IsSynchronized());
  EXPECT_EQ(sync.ToReferenceTime(1090), 5010000);
  // 1 tick is 111.1 units; 5 are 555.6.
  EXPECT_EQ(sync.ToReferenceTime(1005), 5000556);
  EXPECT_EQ(sync.ToReferenceTime(995), 4999444);
  sync.ResetReference();
  EXPECT_FALSE(sync.IsSynchronized());
  EXPECT_EQ(sync.ToReferenceTime(1090), 5010000);
}

TEST(Synchronizer, RoundsHalvesAwayFromZeroAndGoesTheShorterWayRound) {
  CSynchronizer half(20'000'000, 1001);  // a tick is half a unit
  EXPECT_EQ(half.wrapTime(), 501U);
  half.SetReference(500, 100);
  EXPECT_EQ(half.ToReferenceTime(501), 101);
  EXPECT_EQ(half.ToReferenceTime(499), 99);
  EXPECT_THROW(CSynchronizer(0, 1000), std::invalid_argument);

  CSynchronizer clock(10'000'000, 1000);
  clock.SetReference(0, 5000);
  EXPECT_EQ(clock.ToReferenceTime(500), 5500) << "just as far both ways: forward";
  EXPECT_EQ(clock.ToReferenceTime(501), 4501);
  clock.SetReference(990, 5);
  EXPECT_EQ(clock.ToReferenceTime(0), 15);
  EXPECT_EQ(clock.ToReferenceTime(980), 995) << "before stream time 0: the next round";
}

TEST(Synchronizer, CarriesProductsThatNeedMoreThanSixtyFourBits) {
  // A prime rate reduces nothing: a quarter of the round times 10^7 is far beyond 2^64.
  constexpr std::uint64_t kRate = 999'999'937;
  constexpr std::uint64_t kRound = kRate * 4'000'000'000;
  CSynchronizer sync(kRate, kRound);
  EXPECT_EQ(sync.wrapTime(), 40'000'000'000'000'000U);
  sync.SetReference(0, 0);
  EXPECT_EQ(sync.ToReferenceTime(kRound / 4), 10'000'000'000'000'000);
  // A counter of full 64 bits, whose modulus does not fit.
  CSynchronizer full(10'000'000, 0);
  full.SetReference(std::numeric_limits<std::uint64_t>::max() - 9, 1000);
  EXPECT_EQ(full.ToReferenceTime(10), 1020);
}

}  // namespace
