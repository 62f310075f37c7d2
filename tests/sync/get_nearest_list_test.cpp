#include "sync/get_nearest_list.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::Pair;

using IntList = GetNearestList<std::int32_t>;

constexpr REFERENCE_TIME kEarliest = std::numeric_limits<REFERENCE_TIME>::min();
constexpr REFERENCE_TIME kLatest = std::numeric_limits<REFERENCE_TIME>::max();

template <typename List>
std::pair<std::int32_t, REFERENCE_TIME> Nearest(const List& list, REFERENCE_TIME time) {
  std::int32_t value = -1;
  REFERENCE_TIME found = -1;
  list.getNearest(time, value, found);
  return {value, found};
}

// Against a plain list of pairs: the nearest one, the older of two that are equally near; a step
// back in time starts again, and what leaves is released once, oldest first.
TEST(GetNearestList, IsAListOfPairsInTheOrderOfTime) {
  static std::vector<std::int32_t> released;
  struct Recorder {
    void operator()(std::int32_t& value) const { released.push_back(value); }
  };
  std::mt19937 random(1);
  GetNearestList<std::int32_t, Recorder> list;
  std::vector<std::pair<REFERENCE_TIME, std::int32_t>> pairs;
  for (std::int32_t step = 0; step < 3000; ++step) {
    const auto time = static_cast<REFERENCE_TIME>(random() % 40) + step % 300;
    const auto expectedToGo = [&](auto last) {
      std::vector<std::int32_t> values;
      for (auto pair = pairs.begin(); pair != last; ++pair) {
        values.push_back(pair->second);
      }
      pairs.erase(pairs.begin(), last);
      return values;
    };
    released.clear();
    std::vector<std::int32_t> expected;
    if (random() % 2 == 0) {
      if (!pairs.empty() && time < pairs.back().first) {
        expected = expectedToGo(pairs.end());
      }
      pairs.emplace_back(time, step);
      list.push(time, step);
    } else {
      expected = expectedToGo(std::find_if(pairs.begin(), pairs.end(),
                                           [&](const auto& pair) { return pair.first >= time; }));
      list.removeBefore(time);
    }
    ASSERT_EQ(released, expected);
    ASSERT_EQ(list.count(), pairs.size());
    if (!pairs.empty()) {
      const auto nearest =
          std::min_element(pairs.begin(), pairs.end(), [&](const auto& a, const auto& b) {
            return std::abs(a.first - time) < std::abs(b.first - time);
          });
      ASSERT_THAT(Nearest(list, time), Pair(nearest->second, nearest->first));
    }
  }
}

TEST(GetNearestList, MeasuresDistancesThatDoNotFitASignedNumber) {
  IntList list;
  list.push(kEarliest, 1);
  list.push(kEarliest + 1, 2);
  EXPECT_THAT(Nearest(list, kLatest), Pair(1, kEarliest)) << "both out of reach: the first";
  list.push(5, 3);
  EXPECT_THAT(Nearest(list, kLatest), Pair(3, 5));
  list.push(kLatest, 4);
  EXPECT_THAT(Nearest(list, kLatest), Pair(4, kLatest));
}

TEST(GetNearestList, TrimsTheOldestBeyondItsCapacityAndSaysThatItIsEmpty) {
  IntList list;
  list.setCapacity(3);
  for (std::int32_t i = 0; i < 10; ++i) {
    list.push(i, i);
  }
  EXPECT_EQ(list.count(), 3U);
  EXPECT_THAT(Nearest(list, 0), Pair(7, 7));
  list.setCapacity(-5);
  list.push(10, 10);
  EXPECT_EQ(list.count(), 0U);
  try {
    Nearest(list, 0);
    FAIL() << "no exception";
  } catch (const IntList::EmptyError& error) {
    EXPECT_STREQ(error.what(), "Trying getNearest in an empty list does not make sense");
  }
}

}  // namespace
