#include "log/log_file_reader.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/log_file.h"
#include "platform/os/error_numbers.h"
#include "tests/support/temporary_folder.h"

namespace {

using qorp::log::CircularLogFile;
using qorp::log::logfile_sink;
using qorp::log::LogFileReader;
using qorp::log::LogTime;
using qorp::log::NumberedLogLine;
using qorp::log::recovering_logfile_sink;
using testing::IsEmpty;

class LogReading : public testing::Test {
 protected:
  // Lines of one length, one millisecond after the other, by a new writer.
  void Write(int first, int last, std::int32_t maxSize) {
    recovering_logfile_sink sink({3, maxSize, 0}, [](const std::string&) {});
    sink.SetPath(path);
    for (int number = first; number <= last; ++number) {
      Write(sink, number);
    }
  }
  static void Write(qorp::log::ILogSink& sink, int number) {
    sink.Write(1, TimeOf(number), TextOf(number).c_str());
  }
  static LogTime TimeOf(int number) {
    return {1763286194 + number / 1000, static_cast<std::uint16_t>(number % 1000)};
  }
  static std::string TextOf(int number) { return "text " + std::to_string(number); }
  static std::vector<std::string> Texts(int first, int last) {
    std::vector<std::string> texts;
    for (int number = first; number <= last; ++number) {
      texts.push_back(TextOf(number));
    }
    return texts;
  }
  std::vector<std::string> Read(LogFileReader& reader) {
    std::vector<std::string> texts;
    result = reader.Read([&](const NumberedLogLine& line) { texts.push_back(line.entry.text); });
    return texts;
  }
  std::vector<std::string> ReadAll() {
    LogFileReader reader(path);
    return Read(reader);
  }

  const TemporaryFolder folder;
  const std::string path = folder / "log";
  LogFileReader::Result result;
};

TEST_F(LogReading, GivesWholeLinesOldestFirstWhereverTheHeadStands) {
  // Each line is 53 bytes long or a little longer; about 18 fit.
  for (int last = 1; last <= 100; ++last) {
    std::filesystem::remove(path);
    Write(1, last, 1000);
    const std::vector<std::string> texts = ReadAll();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts, Texts(last + 1 - static_cast<int>(texts.size()), last)) << last;
    EXPECT_GE(texts.size(), static_cast<std::size_t>(std::min(last, 15))) << last;
  }
}

TEST_F(LogReading, FollowsAWriterThroughWrapsAndRestarts) {
  LogFileReader reader(path);
  EXPECT_THAT(Read(reader), IsEmpty());
  EXPECT_EQ(result.state, LogFileReader::State::kUnreadable);
  EXPECT_EQ(result.error, os::kErrorFileNotFound);
  int next = 0;
  // Every batch size that does not overrun the reader, over several rounds; a new writer each time,
  // whose numbers step back.
  for (int step = 0; step < 300; ++step) {
    const int count = step % 15;
    if (count > 0) {
      Write(next, next + count - 1, 1000);
    }
    EXPECT_EQ(Read(reader), Texts(next, next + count - 1)) << "from " << next;
    EXPECT_EQ(result.lost, 0);
    next += count;
  }
}

TEST_F(LogReading, CountsTheLinesThatWereOverwrittenUnread) {
  LogFileReader reader(path);
  logfile_sink sink({3, 1000, 0});
  sink.SetPath(path);
  int next = 0;
  for (const int count : {1, 40, 200, 3, 19, 1000}) {
    for (int i = 0; i < count; ++i) {
      Write(sink, next++);
    }
    const std::vector<std::string> texts = Read(reader);
    EXPECT_EQ(result.lost + static_cast<std::int64_t>(texts.size()), count);
    EXPECT_EQ(texts.back(), TextOf(next - 1));
  }
}

TEST_F(LogReading, GivesEveryLineBesideARunningWriter) {
  constexpr int kLines = 20000;
  constexpr std::int64_t kMaxAhead = 200;  // of some 400 lines in the file
  std::atomic<bool> done{false};
  std::atomic<std::int64_t> handedOver{-1};
  std::jthread writer([&] {
    logfile_sink sink({3, 20000, 0});
    sink.SetPath(path);
    for (int i = 0; i < kLines; ++i) {
      for (std::int64_t seen = handedOver; i - seen > kMaxAhead; seen = handedOver) {
        handedOver.wait(seen);
      }
      Write(sink, i);
    }
    done = true;
  });
  LogFileReader reader(path);
  std::int64_t last = -1;
  for (bool isLast = false; !isLast;) {
    isLast = done;
    std::int64_t read = 0;
    const std::int64_t before = last;
    const auto outcome = reader.Read([&](const NumberedLogLine& line) {
      EXPECT_EQ(line.entry.text, TextOf(static_cast<int>(line.number)));
      EXPECT_GT(line.number, last);
      last = line.number;
      ++read;
    });
    EXPECT_EQ(last - before, read) << "after " << before;
    EXPECT_EQ(outcome.lost, 0);
    handedOver = last;
    handedOver.notify_one();
  }
  EXPECT_EQ(last, kLines - 1);
}

TEST_F(LogReading, LeavesOutALineThatNoHeaderCounts) {
  for (const int last : {3, 18, 19, 30}) {
    std::filesystem::remove(path);
    Write(0, last, 1000);
    const std::string before = ReadWholeFile(path);
    const std::vector<std::string> lines = ReadAll();
    Write(last + 1, last + 1, 1000);
    const std::string after = ReadWholeFile(path);
    // The writer died before it wrote the header; what the line overwrote is gone, though.
    WriteWholeFile(path, before.substr(0, 12) + after.substr(12));
    std::vector<std::string> left = ReadAll();
    EXPECT_EQ(left.back(), TextOf(last)) << last;
    EXPECT_EQ(left,
              std::vector(lines.end() - static_cast<std::ptrdiff_t>(left.size()), lines.end()))
        << last;
    EXPECT_LE(lines.size() - left.size(), 2U) << last;
  }
}

TEST_F(LogReading, PutsLinesFromBeforeTheFileWasMadeSmallerFirst) {
  Write(0, 35, 2000);
  Write(36, 50, 1000);
  const std::vector<std::string> texts = ReadAll();
  // The rest of the first round is at the end of the file, and older than all other lines.
  EXPECT_EQ(texts.front(), TextOf(15));
  EXPECT_EQ(texts.back(), TextOf(50));
  EXPECT_TRUE(std::is_sorted(texts.begin(), texts.end())) << testing::PrintToString(texts);
}

TEST_F(LogReading, SaysWhatIsWrongWithAHeaderAndCanSalvageTheLines) {
  using State = LogFileReader::State;
  using Header = CircularLogFile::Header;
  Write(0, 30, 1000);
  const std::string good = ReadWholeFile(path);
  const std::vector<std::string> lines = ReadAll();
  for (const auto& [header, what] : {std::pair("garbage!!!\r\n", Header::kNoNumber),
                                     {"0xFFFFFFFF\r\n", Header::kElsewhere},
                                     {"0x00000003\r\n", Header::kElsewhere}}) {
    WriteWholeFile(path, header + good.substr(12));
    EXPECT_THAT(ReadAll(), IsEmpty());
    EXPECT_EQ(std::pair(result.state, result.header), std::pair(State::kDamaged, what));
    std::vector<std::string> salvaged;
    LogFileReader(path).Salvage(
        [&](const NumberedLogLine& line) { salvaged.push_back(line.entry.text); });
    EXPECT_EQ(salvaged, lines);
  }
  WriteWholeFile(path, "");
  ReadAll();
  EXPECT_EQ(result.state, State::kEmpty);
}

TEST_F(LogReading, TakesNoRestOfALineForALine) {
  using qorp::log::ReadLogLine;
  const std::string time = "Sun Nov  6 09:43:14.123";
  EXPECT_EQ(ReadLogLine("7;" + time + ";5;-1;a;b"), (NumberedLogLine{7, {-1, 5, time, "a;b"}}));
  for (const std::string& rest : std::vector<std::string>{
           ";" + time + ";5;1;text", "x;" + time + ";5;1;text", "-7;" + time + ";5;1;text",
           "7;;5;1;text", "7;" + time + "x;5;1;text", "7;" + time + ";;1;text",
           "7;" + time + ";5;1 ;text", "7;" + time + ";5;1", "7;a;b;c;d;e;f",
           "7;Sun Nov 16 09.43.14.123;5;1;text"}) {
    EXPECT_EQ(ReadLogLine(rest), std::nullopt) << rest;
  }
}

}  // namespace
