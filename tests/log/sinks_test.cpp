#include "log/sinks.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "log/log_perf.h"
#include "platform/os/console.h"
#include "tests/support/datagram_receiver.h"

namespace {

using qorp::log::LogTime;

// 09:43:14.123 on Sunday 16 November, and on the 6th.
constexpr LogTime kTime{1763286194, 123};
constexpr LogTime kEarlier{1763286194 - 10 * 86400, 5};

class Sinks : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
};

TEST_F(Sinks, StreamsLinesOfEveryLevel) {
  std::ostringstream stream;
  qorp::log::ostream_sink sink(stream);
  sink.Write(1, kTime, "odd");
  sink.Write(99, kEarlier, "");
  EXPECT_EQ(stream.str(),
            "[Level 1] Sun Nov 16 09:43:14.123 odd\n"
            "[Level 99] Thu Nov  6 09:43:14.005 \n");
}

TEST_F(Sinks, ConsoleLeavesOutGreaterLevels) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  {
    qorp::log::console_sink sink(1, ends[1]);
    for (const int level : {0, 1, 2, 3, -5}) {
      sink.Write(level, kTime, std::to_string(level).c_str());
    }
    sink.SetMaxLevel(3);
    sink.Write(3, kTime, "now");
  }
  ::close(ends[1]);
  std::array<char, 1000> buffer;
  const ssize_t count = ::read(ends[0], buffer.data(), buffer.size());
  ::close(ends[0]);
  EXPECT_EQ(std::string(buffer.data(), static_cast<std::size_t>(count)),
            "Sun Nov 16 09:43:14.123 0\n"
            "Sun Nov 16 09:43:14.123 1\n"
            "Sun Nov 16 09:43:14.123 -5\n"
            "Sun Nov 16 09:43:14.123 now\n");
}

TEST_F(Sinks, SyslogSendsANumberedDatagramForEachLine) {
  const DatagramReceiver server;
  qorp::log::syslog_sink sink(os::DatagramSocket("127.0.0.1", server.Port()), "encoder01");
  const auto expect = [&](const std::string& line) {
    EXPECT_EQ(server.Receive(), line + std::string(1, '\0'));
  };
  sink.Write(0, kTime, "bad");
  expect("<131>Nov 16 09:43:14 encoder01 0000 bad");
  sink.Write(1, kEarlier, "odd");
  expect("<132>Nov  6 09:43:14 encoder01 0001 odd");
  sink.Write(2, kTime, "%s");
  expect("<134>Nov 16 09:43:14 encoder01 0002 %s");
  sink.Write(3, kTime, "detail");
  expect("<135>Nov 16 09:43:14 encoder01 0003 detail");
  const std::string start = "<132>Nov 16 09:43:14 encoder01 0004 ";
  const std::string longest(1024 - start.size(), 'x');
  sink.Write(1, kTime, (longest + "cut").c_str());
  expect(start + longest);
}

TEST(DummyLogPerf, WritesTextThenLineEndWhateverTheLevel) {
  const os::DebuggerOutputCapture output;
  qorp::log::DummyLogPerf logger;
  logger.log(qorp::log::kError, "[Pin #%d] %s", 3, "wrong\r\n");
  logger.log(qorp::log::kDebug, "detail");
  logger.WriteReport();
  const std::string fits(260, 'a');
  logger.log(qorp::log::kError, "%sb", fits.c_str());
  // A message that cannot be formatted.
  const wchar_t notACharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  logger.log(qorp::log::kError, "bad: %ls", notACharacter);
  EXPECT_THAT(output.Pieces(), testing::ElementsAre("[Pin #3] wrong\r\n", "\n", "detail", "\n",
                                                    fits, "\n", "bad: %ls", "\n"));
}

}  // namespace
