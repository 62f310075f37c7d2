#include "log/log_perf.h"

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/os/console.h"
#include "tests/support/log_fakes.h"

namespace {

using qorp::log::ILogSink;
using qorp::log::LogPerf;
using qorp::log::LogPerfOptions;
using qorp::log::LogTime;
using testing::ElementsAre;

constexpr const char* kNotice = "Overflowed message queue.";

class CallbackSink final : public ILogSink {
 public:
  explicit CallbackSink(std::function<void(const std::string&)> body) : body_(std::move(body)) {}
  void Write(std::int32_t, const LogTime&, const char* text) override { body_(text); }

 private:
  std::function<void(const std::string&)> body_;
};

void LogNumbers(LogPerf& logger, int first, int last) {
  for (int i = first; i <= last; ++i) {
    logger.log(qorp::log::kInfo, "%d", i);
  }
}

std::vector<std::string> Numbers(int first, int last) {
  std::vector<std::string> texts;
  for (int i = first; i <= last; ++i) {
    texts.push_back(std::to_string(i));
  }
  return texts;
}

class Logging : public testing::Test {
 protected:
  static LogPerfOptions WithClock(std::shared_ptr<qorp::log::LogClock> clock) {
    LogPerfOptions options;
    options.clock = std::move(clock);
    return options;
  }

  std::shared_ptr<ManualLogClock> clock = std::make_shared<ManualLogClock>();
  RecordingSink sink;
  LogPerf logger{WithClock(clock)};
};

TEST_F(Logging, MakesOneLineOfEveryMessageOnTheCallersThread) {
  logger.AddSink(&sink);
  const std::string longest(1040, 'x');
  std::string changing = "before";
  logger.log(qorp::log::kWarning, "%s %d", changing.c_str(), 7);
  changing = "after";
  clock->Advance(5);
  logger.log(-3, "two\r\nwords\n");
  logger.log(-3, "%s and what is cut", longest.c_str());
  logger.log(-3, "\r\r");
  clock->Advance(1000);
  logger.Start();
  logger.Stop();
  const std::int64_t start = 1763286194123;
  using Line = RecordingSink::Line;
  EXPECT_THAT(sink.Lines(),
              ElementsAre(Line{1, start, "before 7"}, Line{-3, start + 5, "two words "},
                          Line{-3, start + 5, longest}, Line{-3, start + 5, ""}));
}

TEST_F(Logging, StopHandsOverEverythingThatWaits) {
  logger.AddSink(&sink);
  sink.HoldUp();
  logger.Start();
  LogNumbers(logger, 1, 5);
  ASSERT_TRUE(sink.WaitForCalls(1)) << "the worker did not take a message";
  std::thread stopper([&] { logger.Stop(); });
  sink.LetThrough();
  stopper.join();
  EXPECT_EQ(sink.Texts(), Numbers(1, 5));
  LogNumbers(logger, 6, 6);
  logger.Stop();
  EXPECT_EQ(sink.Texts(), Numbers(1, 5));
  logger.Start();
  EXPECT_THROW(logger.Start(), std::logic_error);
  logger.Stop();
  EXPECT_EQ(sink.Texts(), Numbers(1, 6));
}

TEST_F(Logging, OneNoticeStandsForAllThatIsLostUntilItHasBeenTaken) {
  logger.AddSink(&sink);
  sink.HoldUp();
  logger.Start();
  LogNumbers(logger, 0, 0);
  ASSERT_TRUE(sink.WaitForCalls(1)) << "the worker did not take a message";
  LogNumbers(logger, 1, 1000);
  clock->Advance(1);
  LogNumbers(logger, 1001, 1100);
  // There is room in the queue again, but what was lost has not been reported yet.
  sink.LetThrough(500);
  ASSERT_TRUE(sink.WaitForCalls(501)) << "the worker did not continue";
  LogNumbers(logger, 2000, 2000);
  // The worker holds the notice: the queue is empty.
  sink.LetThrough(501);
  ASSERT_TRUE(sink.WaitForCalls(1002)) << "the worker did not take the notice";
  LogNumbers(logger, 3000, 3000);
  sink.LetThrough();
  logger.Stop();
  std::vector<std::string> expected = Numbers(0, 1000);
  expected.emplace_back(kNotice);
  expected.emplace_back("3000");
  EXPECT_EQ(sink.Texts(), expected);
  const RecordingSink::Line notice = sink.Lines()[1001];
  EXPECT_EQ(notice.level, 0);
  EXPECT_EQ(notice.milliseconds, sink.Lines()[1000].milliseconds + 1) << "of the first one lost";
}

TEST_F(Logging, SinksComeAndGoWithTheNextMessage) {
  std::array<RecordingSink, 2> sinks;
  CallbackSink changer([&](const std::string& text) {
    if (text == "add") {
      logger.AddSink(&sinks[1]);
    } else if (text == "remove") {
      logger.RemoveSink(&sinks[0]);
      logger.RemoveSink(&changer);
    }
  });
  logger.AddSink(&sinks[0]);
  logger.AddSink(&changer);
  for (const char* const text : {"add", "both", "remove", "last"}) {
    logger.log(qorp::log::kInfo, "%s", text);
  }
  logger.Start();
  logger.Stop();
  EXPECT_THAT(sinks[0].Texts(), ElementsAre("add", "both", "remove"));
  EXPECT_THAT(sinks[1].Texts(), ElementsAre("both", "remove", "last"));
}

TEST_F(Logging, RemovingASinkWaitsForTheCallInProgress) {
  auto held = std::make_unique<RecordingSink>();
  held->HoldUp();
  logger.AddSink(held.get());
  logger.Start();
  logger.log(qorp::log::kInfo, "in progress");
  ASSERT_TRUE(held->WaitForCalls(1)) << "the sink was not called";
  std::size_t linesAtReturn = 0;
  std::thread remover([&] {
    logger.RemoveSink(held.get());
    linesAtReturn = held->Lines().size();
    held.reset();
  });
  // Another change in between does not let the removal return too early.
  logger.AddSink(&sink);
  held->LetThrough();
  remover.join();
  EXPECT_EQ(linesAtReturn, 1U);
  logger.log(qorp::log::kInfo, "next");
  logger.Stop();
  EXPECT_THAT(sink.Texts(), ElementsAre("next"));
}

TEST_F(Logging, SurvivesASinkThatThrows) {
  const os::DebuggerOutputCapture output;
  CallbackSink broken([](const std::string& text) {
    if (text == "2") {
      throw 7;
    }
    throw std::runtime_error("no disk");
  });
  logger.AddSink(&broken);
  logger.AddSink(&sink);
  LogNumbers(logger, 0, 4);
  logger.Start();
  logger.Stop();
  EXPECT_EQ(sink.Texts(), Numbers(0, 4));
  EXPECT_EQ(output.Text(),
            "Log sink failed: no disk\nLog sink failed: unknown failure\nLog sink failed: no "
            "disk\n");
}

// A clock on which no two messages have the same time.
class CountingClock final : public qorp::log::LogClock {
 public:
  LogTime Now() override {
    const std::int64_t now = ++count_;
    return {now / 1000, static_cast<std::uint16_t>(now % 1000)};
  }
  std::uint32_t Ticks() override { return 0; }

 private:
  std::atomic<std::int64_t> count_{0};
};

void LogFromThreads(LogPerf& logger, int threads, int linesEach) {
  std::vector<std::thread> callers;
  for (int thread = 0; thread < threads; ++thread) {
    callers.emplace_back([&logger, thread, linesEach] {
      for (int i = 0; i < linesEach; ++i) {
        logger.log(qorp::log::kInfo, "%d:%d", thread, i);
      }
    });
  }
  for (std::thread& caller : callers) {
    caller.join();
  }
}

// Every call takes one timestamp: the timestamps of the lines that arrive count up by one, except
// for what was lost after a notice.
TEST(LoggingUnderLoad, LosesNothingButWhatANoticeStandsForWhileSinksComeAndGo) {
  constexpr int kThreads = 8;
  constexpr int kLinesEach = 125000;
  LogPerfOptions options;
  options.clock = std::make_shared<CountingClock>();
  LogPerf logger(options);
  RecordingSink sink;
  logger.AddSink(&sink);
  logger.Start();
  std::atomic<bool> done{false};
  std::vector<std::thread> changers;
  for (int i = 0; i < 2; ++i) {
    changers.emplace_back([&] {
      while (!done) {
        RecordingSink passing;
        logger.AddSink(&passing);
        logger.RemoveSink(&passing);
      }
    });
  }
  LogFromThreads(logger, kThreads, kLinesEach);
  done = true;
  for (std::thread& changer : changers) {
    changer.join();
  }
  logger.Stop();

  std::int64_t last = 0;
  std::int64_t arrived = 0;
  bool mayHaveLost = false;
  std::array<int, kThreads> lastOfThread;
  lastOfThread.fill(-1);
  for (const RecordingSink::Line& line : sink.Lines()) {
    if (mayHaveLost) {
      ASSERT_GT(line.milliseconds, last) << "out of order: " << line.text;
    } else {
      ASSERT_EQ(line.milliseconds, last + 1) << "lost without a notice before: " << line.text;
    }
    last = line.milliseconds;
    mayHaveLost = line.text == kNotice;
    if (mayHaveLost) {
      continue;
    }
    ++arrived;
    int thread = 0;
    int number = 0;
    ASSERT_EQ(std::sscanf(line.text.c_str(), "%d:%d", &thread, &number), 2) << line.text;
    int& previous = lastOfThread.at(static_cast<std::size_t>(thread));
    ASSERT_GT(number, previous) << "the lines of a thread are out of order";
    previous = number;
  }
  EXPECT_GE(arrived, 1000) << "what fits into the queue arrives";
  EXPECT_LE(last, kThreads * kLinesEach);
  if (!mayHaveLost) {
    EXPECT_EQ(last, kThreads * kLinesEach) << "the end was lost without a notice";
  }
}

TEST(LoggingUnderLoad, CallersDoNotWaitForASinkThatStands) {
  LogPerf logger;
  RecordingSink sink;
  sink.HoldUp();
  logger.AddSink(&sink);
  logger.Start();
  // Would not return if a caller waited for the sink.
  LogFromThreads(logger, 8, 5000);
  EXPECT_EQ(sink.Lines().size(), 0U);
  sink.LetThrough();
  logger.Stop();
  EXPECT_EQ(sink.Lines().back().text, kNotice);
}

}  // namespace
