#include "log/sinks.h"

#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <sstream>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/log_perf.h"
#include "platform/os/console.h"
#include "tests/support/datagram_receiver.h"

namespace {

using qorp::log::LogTime;

// 09:43:14.123 on Sunday 16 November, and on the 6th.
constexpr LogTime kSinkTime{1763286194, 123};
constexpr LogTime kEarlier{1763286194 - 10 * 86400, 5};

class Sinks : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
};

TEST_F(Sinks, ConsoleLeavesOutGreaterLevelsWhichAStreamHas) {
  std::ostringstream stream;
  qorp::log::console_sink console(1, stream, false);
  for (const int level : {0, 1, 2, 3, -5}) {
    console.Write(level, kSinkTime, std::to_string(level).c_str());
  }
  console.SetMaxLevel(3);
  console.Write(3, kSinkTime, "now");
  qorp::log::ostream_sink(stream).Write(99, kEarlier, "");
  EXPECT_EQ(stream.str(),
            "Sun Nov 16 09:43:14.123 0\n"
            "Sun Nov 16 09:43:14.123 1\n"
            "Sun Nov 16 09:43:14.123 -5\n"
            "Sun Nov 16 09:43:14.123 now\n"
            "[Level 99] Thu Nov  6 09:43:14.005 \n");
}

TEST_F(Sinks, SyslogSendsANumberedDatagramForEachLine) {
  const DatagramReceiver server;
  qorp::log::syslog_sink sink(os::DatagramSocket("127.0.0.1", server.Port()), "encoder01");
  const std::string longest(1024 - 36, 'x');
  for (const auto& [level, time, text, line] :
       {std::tuple(0, kSinkTime, std::string("bad"), "<131>Nov 16 09:43:14 encoder01 0000 bad"),
        {1, kEarlier, "odd", "<132>Nov  6 09:43:14 encoder01 0001 odd"},
        {2, kSinkTime, "%s", "<134>Nov 16 09:43:14 encoder01 0002 %s"},
        {3, kSinkTime, longest + "cut", "<135>Nov 16 09:43:14 encoder01 0003 "}}) {
    sink.Write(level, time, text.c_str());
    EXPECT_EQ(server.Receive(), line + (level == 3 ? longest : "") + '\0');
  }
}

TEST(DummyLogPerf, WritesTextThenLineEndWhateverTheLevel) {
  const os::DebuggerOutputCapture output;
  qorp::log::DummyLogPerf logger;
  logger.log(qorp::log::kError, "[Pin #%d] %s", 3, "wrong\r\n");
  logger.WriteReport();
  const std::string fits(260, 'a');
  logger.log(qorp::log::kDebug, "%sb", fits.c_str());
  // A message that cannot be formatted.
  const wchar_t notACharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  logger.log(qorp::log::kError, "bad: %ls", notACharacter);
  EXPECT_THAT(output.Pieces(),
              testing::ElementsAre("[Pin #3] wrong\r\n", "\n", fits, "\n", "bad: %ls", "\n"));
}

}  // namespace
