#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/log_line.h"

namespace {

using qorp::log::LogHistory;
using qorp::log::LogHistoryEntry;
using testing::ElementsAre;
using testing::IsEmpty;

LogHistoryEntry Entry(const std::string& text) {
  return {1, 1763286194123, "Sun Nov 16 09:43:14.123", text};
}

TEST(LogHistory, ClampsARangeToItsLines) {
  LogHistory history(3);
  for (int number = 4; number <= 7; ++number) {
    history.Insert(number, Entry(std::to_string(number)));
  }
  const auto range = [&](std::int64_t first, std::int64_t last) {
    std::int64_t outFirst = 0;
    std::int64_t outLast = 0;
    const bool any = history.GetRange(first, last, &outFirst, &outLast);
    return std::tuple(any, outFirst, outLast);
  };
  EXPECT_EQ(range(-10, -1), std::tuple(true, 5, 7)) << "4 went when 7 came";
  EXPECT_EQ(range(6, 100), std::tuple(true, 6, 7));
  EXPECT_EQ(range(-2, -2), std::tuple(true, 6, 6));
  EXPECT_EQ(range(0, 4), std::tuple(false, 5, 4));
  EXPECT_EQ(range(8, 9), std::tuple(false, 8, 7));
  EXPECT_EQ(range(INT64_MIN, INT64_MAX), std::tuple(true, 5, 7));
  EXPECT_THAT(history.Get(-2, -1), ElementsAre(Entry("6"), Entry("7")));
  EXPECT_THAT(history.Get(7, 6), IsEmpty());
}

TEST(LogLine, KeepsSeparatorsOfTheText) {
  const LogHistoryEntry entry = Entry("a;b;;c;");
  const std::string line = qorp::log::FormatLogLine(42, entry);
  EXPECT_EQ(line, "42;Sun Nov 16 09:43:14.123;1763286194123;1;a;b;;c;");
  EXPECT_TRUE(qorp::log::IsLogLine(line));
  EXPECT_EQ(qorp::log::ParseLogLineNumber(line), 42);
  EXPECT_EQ(qorp::log::ParseLogLine(line), entry);
  EXPECT_TRUE(qorp::log::IsLogLine("1;t;2;3;"));
  EXPECT_FALSE(qorp::log::IsLogLine("1;t;2;3"));
}

}  // namespace
