#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>

#include "log/log_file.h"
#include "platform/os/files.h"
#include "tests/support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using qorp::log::logfile_sink;
using qorp::log::LogFileOptions;
using qorp::log::LogHistory;
using qorp::log::LogHistoryEntry;
using qorp::log::LogTime;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr LogTime kLogTime{1763286194, 123};
constexpr const char* kTimeText = "Sun Nov 16 09:43:14.123";

std::string Line(int number, const std::string& text) {
  return std::to_string(number) + ";" + kTimeText + ";1763286194123;1;" + text + "\r\n";
}

class LogFile : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
  static void Write(logfile_sink& sink, const std::string& text) {
    sink.Write(1, kLogTime, text.c_str());
  }
  static std::vector<std::string> Texts(const logfile_sink& sink) {
    std::vector<std::string> texts;
    for (const LogHistoryEntry& entry : sink.GetHistory(0, -1)) {
      texts.push_back(entry.text);
    }
    return texts;
  }
  // The history of a sink that opens the file by writing "new".
  std::vector<std::string> Reopen() {
    logfile_sink sink(unlimited);
    sink.SetPath(path);
    Write(sink, "new");
    return Texts(sink);
  }
  std::string Contents() const { return ReadWholeFile(path); }

  static constexpr LogFileOptions unlimited{3, 0, 1000};
  const TemporaryFolder folder;
  const std::string path = folder / "app.log";
};

TEST_F(LogFile, CountsEveryLineInItsHeader) {
  logfile_sink sink(unlimited);
  sink.SetPath(os::SystemPath(path));
  EXPECT_FALSE(fs::exists(path)) << "opened by the next line only";
  Write(sink, "first");
  EXPECT_EQ(Contents(), "0x0000003D\r\n" + Line(0, "first"));
  Write(sink, "a;b");
  EXPECT_EQ(Contents(), "0x0000006C\r\n" + Line(0, "first") + Line(1, "a;b"));
  sink.SetMaxLevel(0);
  Write(sink, "left out");
  EXPECT_EQ(Contents().size(), 0x6CU);
  EXPECT_THAT(sink.GetHistory(0, -1),
              ElementsAre(LogHistoryEntry{1, 1763286194123, kTimeText, "first"},
                          LogHistoryEntry{1, 1763286194123, kTimeText, "a;b"}));
}

TEST_F(LogFile, WrapsWhenALineEndsBeyondTheMaximum) {
  logfile_sink sink({1, 100, 1000});
  sink.SetPath(path);
  // Each line is 60 bytes long.
  const std::string text(60 - Line(0, "").size(), 'x');
  Write(sink, text);
  EXPECT_EQ(Contents(), "0x00000048\r\n" + Line(0, text));
  Write(sink, text);
  EXPECT_EQ(Contents(), "0x0000000C\r\n" + Line(0, text) + Line(1, text));
  Write(sink, text);
  EXPECT_EQ(Contents(), "0x00000048\r\n" + Line(2, text) + Line(1, text));
  // A line that ends at the maximum is not beyond it.
  sink.SetMaxSize(132);
  Write(sink, text);
  Write(sink, "short");
  EXPECT_EQ(Contents(), "0x0000000C\r\n" + Line(2, text) + Line(3, text) + Line(4, "short"));
  EXPECT_THROW(sink.SetMaxSize(-1), std::invalid_argument);
}

// The oldest line gives its number and is left out; the following lines are counted from it.
TEST_F(LogFile, RebuildsAWrappedFileOldestLineFirst) {
  const std::string start = "0x0000006E\r\n" + Line(7, "seven") + Line(8, "eight");
  WriteWholeFile(path, start + "rest of five\r\n" + Line(5, "old") + Line(6, "six"));
  logfile_sink sink(unlimited);
  sink.SetPath(path);
  Write(sink, "new");
  EXPECT_THAT(Texts(sink), ElementsAre("six", "seven", "eight", "new"));
  std::int64_t first = 0;
  std::int64_t last = 0;
  EXPECT_TRUE(sink.GetHistoryRange(0, -1, &first, &last));
  EXPECT_EQ(first, 5);
  EXPECT_EQ(last, 8);
  EXPECT_EQ(Contents().substr(start.size(), Line(8, "new").size()), Line(8, "new"));
}

TEST_F(LogFile, FollowsItsPathWithTheNextLine) {
  logfile_sink sink(unlimited);
  sink.SetPath(path);
  Write(sink, "here");
  sink.SetPath(folder / "other.log");
  Write(sink, "the\rre");
  EXPECT_THAT(Texts(sink), ElementsAre("there"));
  sink.SetPath("");
  Write(sink, "nowhere");
  EXPECT_THAT(Texts(sink), ElementsAre("there", "nowhere"));
  sink.SetPath(path);
  Write(sink, "ba\nck");  // stays one line
  EXPECT_THAT(Texts(sink), ElementsAre("here", "ba ck"));
  EXPECT_EQ(ReadWholeFile(folder / "other.log"), "0x0000003D\r\n" + Line(0, "there"));
  EXPECT_EQ(Contents(), "0x0000006D\r\n" + Line(0, "here") + Line(1, "ba ck"));
}

TEST_F(LogFile, KeepsItsHistoryWhileNothingCanBeWrittenAndTriesAgain) {
  for (const std::string& target :
       {(folder / "later/log").string(), std::string("/dev/full"), folder.Path().string()}) {
    logfile_sink sink(unlimited);
    sink.SetPath(target);
    for (const char* const text : {"1", "2", "3"}) {
      Write(sink, text);
    }
    EXPECT_THAT(Texts(sink), ElementsAre("1", "2", "3")) << target;
    fs::create_directory(folder / "later");
    Write(sink, "4");
  }
  EXPECT_EQ(ReadWholeFile(folder / "later/log"), "0x00000039\r\n" + Line(0, "4"));
}

TEST_F(LogFile, BeginsAtTheStartWhenTheHeaderIsDamaged) {
  const std::string lines = Line(3, "first") + Line(4, "second");
  for (const char* const header :
       {"0x00000000\r\n", "0x0000000B\r\n", "0xFFFFFFFF\r\n", "0x00000070\r\n", "garbage!!!\r\n",
        "-0x0000001\r\n", "\r\n\r\n\r\n\r\n\r\n\r\n"}) {
    WriteWholeFile(path, header + lines);
    EXPECT_THAT(Reopen(), ElementsAre("second", "new")) << header;
    EXPECT_EQ(Contents().substr(0, 12 + Line(4, "new").size()), "0x0000003B\r\n" + Line(4, "new"))
        << header;
  }
}

TEST_F(LogFile, LeavesLinesOutThatAreTooShort) {
  const std::string damage = "no fields\r\n" + Line(9, "gives the number") + "1;2;3\r\n" +
                             std::string("\0\0;\r\r\n", 6) + "\n" + std::string(3 << 20, 'z') +
                             "\r\n" + Line(9, "whole");
  WriteWholeFile(path, "0x0000000C\r\n" + damage);
  EXPECT_THAT(Reopen(), ElementsAre("whole", "new"));
  // Among the newest lines the first one that is too short ends the reading.
  const std::string newest = Line(0, "one") + Line(1, "two") + "too short\r\n" + Line(2, "beyond");
  char header[16];
  std::snprintf(header, sizeof(header), "0x%.8zX\r\n", 12 + newest.size());
  WriteWholeFile(path, header + newest);
  EXPECT_THAT(Reopen(), ElementsAre("one", "two", "new"));
}

TEST_F(LogFile, TouchesNoFileWhoseNumbersAreNone) {
  for (const auto& [lines, failure] :
       {std::pair(std::string("x;t;1;1;no number\r\n"), "invalid stoll argument"),
        {"99999999999999999999;t;1;1;beyond 64 bits\r\n", "stoll argument out of range"},
        {Line(9, "number") + "9;t;x;1;no time\r\n", "invalid stoll argument"},
        {Line(9, "number") + "9;t;1;y;no level\r\n", "invalid stoi argument"},
        {Line(9, "number") + "9;t;1;99999999999;a level\r\n", "stoi argument out of range"}}) {
    WriteWholeFile(path, "0x0000000C\r\n" + lines);
    logfile_sink sink(unlimited);
    sink.SetPath(path);
    for (int attempt = 0; attempt < 2; ++attempt) {  // every line tries again
      EXPECT_THAT([&] { Write(sink, "new"); },
                  testing::ThrowsMessage<std::logic_error>(testing::StrEq(failure)));
    }
    EXPECT_EQ(Contents(), "0x0000000C\r\n" + lines);
    fs::rename(path, folder / "moved");
    Write(sink, "new");
    EXPECT_EQ(Contents().substr(12), Line(0, "new"));
  }
  // Any number is continued, beyond the end of the range too.
  WriteWholeFile(path, "0x0000000C\r\n9223372036854775807;t;1;1;number\r\n" + Line(0, "one"));
  EXPECT_NO_THROW(Reopen());
}

TEST_F(LogFile, ReadsAFileThatItMayNotWrite) {
  const std::string content = "0x0000003B\r\n" + Line(0, "one");
  WriteWholeFile(path, content);
  fs::permissions(folder.Path(), static_cast<fs::perms>(0755));
  fs::permissions(path, static_cast<fs::perms>(0444));
  // This thread has the file permissions of an ordinary user; root may write everything.
  const int former = ::setfsuid(65534);
  EXPECT_THAT(Reopen(), ElementsAre("one", "new"));
  ::setfsuid(static_cast<uid_t>(former));
  EXPECT_EQ(Contents(), content);
}

TEST(LogHistory, ClampsARangeToItsLines) {
  LogHistory history(3);
  for (int number = 4; number <= 7; ++number) {  // 7 replaces 4
    history.Insert(number, {1, 1763286194123, kTimeText, std::to_string(number)});
  }
  for (const auto& [first, last, any, clampedFirst, clampedLast] :
       {std::tuple<std::int64_t, std::int64_t, bool, int, int>{-10, -1, true, 5, 7},
        {6, 100, true, 6, 7},
        {-2, -2, true, 6, 6},
        {0, 4, false, 5, 4},
        {8, 9, false, 8, 7},
        {INT64_MIN, INT64_MAX, true, 5, 7}}) {
    std::int64_t from = 0;
    std::int64_t to = 0;
    EXPECT_EQ(history.GetRange(first, last, &from, &to), any);
    EXPECT_EQ(std::pair(from, to),
              (std::pair<std::int64_t, std::int64_t>(clampedFirst, clampedLast)))
        << first;
  }
  EXPECT_THAT(history.Get(-2, -1), ElementsAre(LogHistoryEntry{1, 1763286194123, kTimeText, "6"},
                                               LogHistoryEntry{1, 1763286194123, kTimeText, "7"}));
  EXPECT_THAT(history.Get(7, 6), IsEmpty());
  EXPECT_THROW(logfile_sink().GetHistoryRange(0, -1, nullptr, nullptr), std::runtime_error);
}

}  // namespace
