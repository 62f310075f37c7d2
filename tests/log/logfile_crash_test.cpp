// What is left of a log file when its writer dies.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log/log_file.h"
#include "log/log_file_reader.h"
#include "tests/support/temporary_folder.h"

namespace {

using qorp::log::LogFileOptions;
using qorp::log::LogHistoryEntry;
using qorp::log::recovering_logfile_sink;

constexpr qorp::log::LogTime kTime{1763286194, 123};

// Opens the file by writing one more line, as the program does.
std::vector<std::string> Reopen(const std::string& path, const LogFileOptions& options,
                                const std::string& line, const qorp::log::LogTime& time = kTime) {
  recovering_logfile_sink sink(options, [](const std::string&) {});
  sink.SetPath(path);
  sink.Write(1, time, line.c_str());
  std::vector<std::string> texts;
  for (const LogHistoryEntry& entry : sink.sink().GetHistory(0, -1)) {
    texts.push_back(entry.text);
  }
  return texts;
}

std::string WriteLines(const std::string& path, const LogFileOptions& options,
                       const std::vector<std::string>& lines) {
  recovering_logfile_sink sink(options, [](const std::string&) {});
  sink.SetPath(path);
  for (const std::string& line : lines) {
    sink.Write(1, kTime, line.c_str());
  }
  return ReadWholeFile(path);
}

// Every state between two headers: the line written up to some byte, the header still the old one.
// Only the lines that it has reached are lost. The oldest one gives its number and is left out in
// any case.
TEST(LogFileCrash, InTheMiddleOfALineOfAWrappedFileKeepsTheOthers) {
  const TemporaryFolder folder;
  const std::string path = folder / "log";
  constexpr LogFileOptions kSmall{3, 260, 1000};
  // 5 ends beyond 260; 6 takes the place of 0. The head is where 1 begins.
  const std::string before =
      WriteLines(path, kSmall, {"0", "1", "2", "3;;;;;", "4;a;b;c;d", "5", "6"});
  const std::size_t head = before.find("1;Sun");
  const std::size_t endOfOldest = before.find("2;Sun");
  // 7 is longer than 1 and ends within 2.
  const std::string after = WriteLines(path, kSmall, {"7;and;its;fields;too"});
  ASSERT_EQ(before.size(), after.size()) << "the line should overwrite others";
  const std::size_t end = after.find("too\r\n") + 5;
  ASSERT_GT(end, endOfOldest);
  for (std::size_t bytes = head; bytes <= end; ++bytes) {
    WriteWholeFile(
        path, before.substr(0, head) + after.substr(head, bytes - head) + before.substr(bytes));
    std::vector<std::string> left{"3;;;;;", "4;a;b;c;d", "5", "6", "new"};
    if (bytes < endOfOldest) {
      left.insert(left.begin(), "2");
    }
    EXPECT_EQ(Reopen(path, {3, 0, 1000}, "new"), left) << bytes;
  }
}

// Lines of many lengths and with many separators. Their text begins with a letter, so that the rest
// of an overwritten line is not mistaken for a line with a time and a level.
std::string LineOf(int number) {
  return "n" + std::to_string(number) + std::string(static_cast<std::size_t>(number * 7 % 90), ';');
}

qorp::log::LogTime TimeOf(int number) {
  return {kTime.seconds + number / 1000, static_cast<std::uint16_t>(number % 1000)};
}

[[noreturn]] void WriteUntilKilled(const std::string& path, const LogFileOptions& options,
                                   int first, std::atomic<int>& counted) {
  recovering_logfile_sink sink(options, [](const std::string&) {});
  sink.SetPath(path);
  for (int number = first;; ++number) {
    sink.Write(1, TimeOf(number), LineOf(number).c_str());
    counted = number;
  }
}

// Kills a process that writes lines from first on without a pause: after `enough` lines and then
// `looks` readings of the clock. Returns the number of the last line that it reported.
int KillWriter(const std::string& path, const LogFileOptions& options, int first, int enough,
               int looks) {
  // Shared with the writing process: the number of its last line that Write had counted.
  static void* const memory = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  std::atomic<int>& counted = *new (memory) std::atomic<int>(-1);
  const pid_t writer = ::fork();
  if (writer == 0) {
    WriteUntilKilled(path, options, first, counted);
  }
  EXPECT_GT(writer, 0) << "no process for the writer";
  int status = 0;
  while (counted < first + enough) {
    if (::waitpid(writer, &status, WNOHANG) != 0) {
      ADD_FAILURE() << "the writer ended by itself";
      return -1;
    }
    std::this_thread::yield();
  }
  for (int look = 0; look < looks; ++look) {
    static_cast<void>(std::chrono::steady_clock::now());
  }
  EXPECT_EQ(::kill(writer, SIGKILL), 0);
  EXPECT_EQ(::waitpid(writer, &status, 0), writer);
  EXPECT_TRUE(WIFSIGNALED(status)) << "the writer was not killed while writing";
  return counted;
}

// Both in the order of writing. True when found is the end of written, but for up to staleAllowed
// older lines: where one round through the file ended later than the next, the rest of its last
// line stands at the end of the file, and may still look like a line.
testing::AssertionResult IsEndOf(const std::vector<std::string>& written,
                                 const std::vector<std::string>& found, int staleAllowed) {
  auto expected = written.rbegin();
  int stale = 0;
  for (auto line = found.rbegin(); line != found.rend(); ++line) {
    if (expected != written.rend() && *line == *expected) {
      ++expected;
    } else if (++stale > staleAllowed ||
               std::find(expected, written.rend(), *line) == written.rend()) {
      return testing::AssertionFailure()
             << line - found.rbegin() << " before the newest stands [" << *line << "] instead of ["
             << (expected == written.rend() ? "nothing" : *expected) << "]";
    }
  }
  return testing::AssertionSuccess();
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> texts;
  qorp::log::LogFileReader(path).Read(
      [&](const qorp::log::NumberedLogLine& line) { texts.push_back(line.entry.text); });
  return texts;
}

// Kills writers one after another; each continues the file of the one before, or begins a new one.
void KillWriters(const LogFileOptions& options, int kills, std::size_t linesThatFit,
                 int staleAllowed) {
  const TemporaryFolder folder;
  const std::string path = folder / "log";
  std::vector<std::string> written;  // into the present file
  std::mt19937 random(1);
  int next = 0;
  std::ptrdiff_t moved = 0;
  const auto followMove = [&] {  // of a file that could not be continued
    const std::filesystem::directory_iterator files(folder.Path());
    const auto before = std::exchange(moved, std::distance(begin(files), end(files)) - 1);
    if (before != moved) {
      written.clear();
    }
  };
  for (int kill = 0; kill < kills; ++kill) {
    const int last = KillWriter(path, options, next, static_cast<int>(random() % 20),
                                static_cast<int>(random() % 400));
    ASSERT_GE(last, next);
    followMove();
    for (; next <= last; ++next) {
      written.push_back(LineOf(next));
    }
    const std::vector<std::string> texts = ReadLines(path);
    // A header may have counted one line more than its writer came to report.
    if (std::find(texts.begin(), texts.end(), LineOf(next)) != texts.end()) {
      written.push_back(LineOf(next));
    }
    const qorp::log::LogTime reopened = TimeOf(next++);
    ASSERT_GE(texts.size(), std::min(linesThatFit, written.size()));
    ASSERT_TRUE(IsEndOf(written, texts, staleAllowed)) << "after kill " << kill;
    written.push_back("reopened " + std::to_string(kill));
    const std::string mark = written.back();
    ASSERT_EQ(Reopen(path, options, mark, reopened).back(), mark);
    followMove();
    if (written.empty()) {
      written.push_back(mark);
    }
  }
}

TEST(LogFileCrash, KilledWritersLoseNothingThatAHeaderCounted) {
  KillWriters({3, 0, 100000}, 100, 100000, 0);
  KillWriters({3, 4000, 1000}, 100, 20, 1);  // the file wraps
}

}  // namespace
