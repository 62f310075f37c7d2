#include "log/dummy_log_perf.h"

#include <cwchar>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/os/debugger_output.h"

namespace {

using qorp::log::DummyLogPerf;
using testing::ElementsAre;

TEST(DummyLogPerf, WritesTextThenLineEndWhateverTheLevel) {
  const os::DebuggerOutputCapture output;
  DummyLogPerf logger;
  logger.log(qorp::log::kError, "[Pin #%d] %s", 3, "wrong\r\n");
  logger.log(qorp::log::kDebug, "detail");
  logger.WriteReport();
  logger.NotifyBufferFull("out");
  EXPECT_THAT(output.Pieces(), ElementsAre("[Pin #3] wrong\r\n", "\n", "detail", "\n"));
}

TEST(DummyLogPerf, CutsWhatIsLongerThanItsBuffer) {
  const os::DebuggerOutputCapture output;
  DummyLogPerf logger;
  const std::string fits(260, 'a');
  logger.log(qorp::log::kError, "%s", fits.c_str());
  logger.log(qorp::log::kError, "%sb", fits.c_str());
  EXPECT_THAT(output.Pieces(), ElementsAre(fits, "\n", fits, "\n"));
}

TEST(DummyLogPerf, KeepsTheFormatOfAMessageThatCannotBeFormatted) {
  const os::DebuggerOutputCapture output;
  DummyLogPerf logger;
  const wchar_t notACharacter[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  logger.log(qorp::log::kError, "bad: %ls", notACharacter);
  EXPECT_EQ(output.Text(), "bad: %ls\n");
}

}  // namespace
