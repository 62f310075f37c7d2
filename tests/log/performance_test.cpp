#include "log/performance.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/log_perf.h"
#include "platform/os/console.h"
#include "tests/support/log_fakes.h"

namespace {

using qorp::log::LogPerf;
using qorp::log::LogPerfOptions;
using qorp::log::RestartMonitor;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class RecordingObserver final : public qorp::log::IPerfObserver {
 public:
  void OnReport(std::uint32_t cpuPercent, std::uint32_t commitPercent,
                std::uint64_t workingSetBytes, std::int32_t politicChoicesPerSecond) override {
    reports.emplace_back(cpuPercent, commitPercent, workingSetBytes, politicChoicesPerSecond);
  }

  std::vector<std::tuple<std::uint32_t, std::uint32_t, std::uint64_t, std::int32_t>> reports;
};

class ThrowingOnce final : public qorp::log::ILogSink {
 public:
  explicit ThrowingOnce(ILogSink& next) : next_(next) {}
  void Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) override {
    if (std::exchange(throws_, false)) {
      throw std::runtime_error("no disk");
    }
    next_.Write(level, time, text);
  }

 private:
  ILogSink& next_;
  bool throws_ = true;
};

class Performance : public testing::Test {
 protected:
  LogPerfOptions Options() {
    LogPerfOptions options;
    options.reportPeriod = 2000;
    options.restart = {1, 0, 5, 1};
    options.clock = clock;
    options.readStatistics = [this] {
      if (failsOnce.exchange(false)) {
        throw std::runtime_error("no statistics");
      }
      return statistics;
    };
    return options;
  }
  std::vector<std::string> Logged() {
    RecordingSink all;
    logger.AddSink(&all);
    logger.Start();
    logger.Stop();
    logger.RemoveSink(&all);
    return all.Texts();
  }

  std::shared_ptr<ManualLogClock> clock = std::make_shared<ManualLogClock>();
  os::SystemStatistics statistics;
  std::atomic<bool> failsOnce = false;  // the next reading
  RecordingSink sink;
  LogPerf logger{Options()};
};

constexpr const char* kHeaderStart =
    "Cpu,TotalCpu,WorkingSet,PrivateBytes,NumBufferFull,NumResync,NumTsDiscontinuity,KernelTime,"
    "UserTime,Date,NumDecPictures,VirtualSize,HandleCount,NumPoliticChoices,";
constexpr const char* kHeaderEnd =
    "LastDeltaNumOverAllBufferFull,NumPeriodThresholdReached,NeedRestart,";

TEST_F(Performance, WritesAHeaderThenARecordForEachReport) {
  RecordingObserver observer;
  logger.SetObserver(&observer);
  logger.RegisterPin("b");
  logger.RegisterPin("a");
  logger.WriteReport();  // no time has passed: none
  statistics.kernelTime = 1000;
  statistics.userTime = 1000;
  statistics.idleTime = 500;
  statistics.processKernelTime = 100;
  statistics.commitTotal = 1000;
  statistics.commitAvailable = 750;
  logger.AddPoliticChoices(2);
  logger.WriteReport();  // without a sink: the header is still to come
  logger.SetPerformanceSink(&sink);
  statistics.kernelTime += 600;
  statistics.userTime += 400;
  statistics.idleTime += 499;
  logger.WriteReport();

  statistics.kernelTime += 600;
  statistics.userTime += 400;
  statistics.idleTime += 499;
  statistics.processKernelTime += 109;
  statistics.processUserTime += 10;
  statistics.workingSet = 0x1'0000'0005;
  statistics.privateBytes = 0x2'0000'0006;
  statistics.commitTotal = 0x10'0000'0007;
  statistics.commitAvailable = 0x8'0000'0000;
  statistics.handleCount = 77;
  clock->Advance(100000);
  logger.NotifyBufferFull("b");
  logger.NotifyBufferFull("b");
  logger.NotifyBufferFull("nobody");
  logger.RegisterPin("late");
  logger.IncrementResync();
  for (int i = 0; i < 2; ++i) {
    logger.IncrementTsDiscontinuity();
  }
  for (int i = 0; i < 3; ++i) {
    logger.IncrementDecodedPictures();
  }
  logger.AddPoliticChoices(7);
  logger.WriteReport();

  EXPECT_THAT(sink.Lines(),
              ElementsAre(RecordingSink::Line{2, 1763286194123,
                                              std::string(kHeaderStart) +
                                                  "buffer_full_a,buffer_full_b," + kHeaderEnd},
                          RecordingSink::Line{
                              2, 1763286294123,
                              "11,50,5,6,2,1,2,209,10,1763286294123,3,7,77,9,0,2,0,0,0,0,"}));
  EXPECT_THAT(observer.reports, ElementsAre(std::tuple(5U, 25U, 0U, 1), std::tuple(0U, 25U, 0U, 0),
                                            std::tuple(11U, 50U, 0x1'0000'0005U, 3)));
}

TEST_F(Performance, GivesEverySinkTheHeaderFirstAndAgainWhenItFailed) {
  const os::DebuggerOutputCapture output;
  ThrowingOnce throwing(sink);
  // The last sink has the address of the one before it, but counts as a new one.
  for (qorp::log::ILogSink* const next :
       {static_cast<qorp::log::ILogSink*>(&throwing), static_cast<qorp::log::ILogSink*>(&sink),
        static_cast<qorp::log::ILogSink*>(&sink)}) {
    logger.SetPerformanceSink(next);
    for (int i = 0; i < (next == &throwing ? 3 : 2); ++i) {
      statistics.kernelTime += 100;
      logger.WriteReport();
    }
  }
  const auto header = StartsWith("Cpu,");
  const auto record = StartsWith("0,100,");
  EXPECT_THAT(sink.Texts(), ElementsAre(header, record, header, record, header, record));
}

TEST_F(Performance, IsReportedByTheWorkerOnceForEachPeriodAfterAFailureToo) {
  const os::DebuggerOutputCapture output;
  failsOnce = true;
  statistics.kernelTime = 100;
  logger.SetPerformanceSink(&sink);
  logger.Start();
  clock->Advance(2000);
  while (output.Text().empty()) {
    std::this_thread::yield();
  }
  EXPECT_EQ(output.Text(), "Performance report failed: no statistics\n");
  for (std::size_t reports = 1; reports <= 3; ++reports) {
    for (int i = 0; i < 5; ++i) {
      logger.NotifyBufferFull("out");
    }
    logger.Stop();
    statistics.kernelTime += 100;
    logger.Start();
    clock->Advance(2000);
    ASSERT_TRUE(sink.WaitForLines(reports)) << "no report after the period";
  }
  clock->Advance(1999);
  logger.Stop();
  EXPECT_EQ(sink.Lines().size(), 3U);
  // The restart rule ticks with the reports.
  EXPECT_TRUE(logger.NeedsRestart());
  EXPECT_THAT(sink.Texts().back(), testing::EndsWith(",5,3,1,"));
}

TEST_F(Performance, WarnsOfAFullBufferOnceForEachPinAndPeriod) {
  logger.RegisterPin("out1");
  for (int i = 0; i < 3; ++i) {
    clock->Advance(1000);
    logger.NotifyBufferFull("out1");
  }
  clock->Advance(8000);
  logger.NotifyBufferFull("out1");
  clock->Advance(1000);
  logger.NotifyBufferFull("out1");
  logger.NotifyBufferFull("stranger");
  logger.NotifyBufferFull("stranger");
  EXPECT_THAT(Logged(),
              ElementsAre("Pin output buffer full : out1 (x4)", "Pin output buffer full : stranger",
                          "Pin output buffer full : stranger"));
  clock->Advance(9000);
  logger.NotifyBufferFull("out1");
  clock->Advance(10000);
  logger.NotifyBufferFull("out1");
  EXPECT_THAT(Logged(),
              ElementsAre("Pin output buffer full : out1 (x2)", "Pin output buffer full : out1"));
  // Registered again: the count and the period begin again.
  logger.RegisterPin("out1");
  clock->Advance(9999);
  logger.NotifyBufferFull("out1");
  EXPECT_THAT(Logged(), IsEmpty());
}

TEST(RestartMonitor, NeedsARestartPermanentlyAfterTooManyBadTicksButNotWhileItWarmsUp) {
  // For each tick: its events, and the state after it.
  using Ticks = std::vector<std::array<std::uint64_t, 4>>;
  const Ticks permanently{{5, 5, 1, 0}, {6, 6, 2, 0}, {4, 4, 0, 0}, {5, 5, 1, 0},
                          {5, 5, 2, 0}, {7, 7, 3, 1}, {0, 0, 0, 1}};
  const Ticks warmingUp{{1, 0, 0, 0}, {1, 0, 0, 0}, {1, 0, 0, 0}, {0, 0, 0, 0}, {1, 1, 1, 1}};
  for (const auto& [rule, ticks] : {std::pair(RestartMonitor::Rule{1, 0, 5, 3}, permanently),
                                    {RestartMonitor::Rule{10, 25, 1, 1}, warmingUp}}) {
    RestartMonitor monitor(rule);
    for (const auto& [events, delta, consecutive, needRestart] : ticks) {
      for (std::uint64_t i = 0; i < events; ++i) {
        monitor.CountBufferFull();
      }
      monitor.Tick();
      const RestartMonitor::State state = monitor.GetState();
      EXPECT_EQ(std::tuple(state.lastDelta, state.consecutive, state.needRestart),
                std::tuple(delta, consecutive, needRestart == 1));
    }
  }
}

}  // namespace
