// The performance side of LogPerf: counters, buffer-full warnings and the report.
#include <string>

#include "log/log_perf.h"
#include "log/performance_record.h"

namespace qorp::log {

void LogPerf::RegisterPin(const char* pinName) {
  const std::lock_guard guard(countersLock_);
  counters_.pins.Register(pinName, clock_.Ticks());
}

void LogPerf::NotifyBufferFull(const char* pinName) {
  restartMonitor_.CountBufferFull();
  const std::lock_guard guard(countersLock_);
  const std::uint32_t events = counters_.pins.Count(pinName, clock_.Ticks());
  // Under the lock, so that the lines of one pin stand in the order of their events.
  if (events == 1) {
    log(options_.bufferFullLevel, "Pin output buffer full : %s", pinName);
  } else if (events > 1) {
    log(options_.bufferFullLevel, "Pin output buffer full : %s (x%d)", pinName,
        static_cast<int>(events));
  }
}

void LogPerf::IncrementResync() {
  const std::lock_guard guard(countersLock_);
  ++counters_.resync;
}

void LogPerf::IncrementTsDiscontinuity() {
  const std::lock_guard guard(countersLock_);
  ++counters_.tsDiscontinuity;
}

void LogPerf::IncrementDecodedPictures() {
  const std::lock_guard guard(countersLock_);
  ++counters_.decodedPictures;
}

void LogPerf::AddPoliticChoices(std::int32_t count) {
  const std::lock_guard guard(countersLock_);
  counters_.politicChoices += static_cast<std::uint32_t>(count);
}

// What a report tells, beside the record what only the observer hears.
struct LogPerf::Report {
  LogTime time;
  PerformanceRecord record;
  std::uint32_t commitPercent = 0;
  std::uint64_t workingSet = 0;  // bytes, in full
  std::int32_t politicChoicesPerSecond = 0;
};

// Nothing when no time of the system has passed since the last one.
std::optional<LogPerf::Report> LogPerf::CompileReport() {
  const std::lock_guard guard(reportLock_);
  Report report;
  report.time = clock_.Now();
  const os::SystemStatistics statistics = options_.readStatistics();

  const std::uint64_t systemTotal = statistics.kernelTime + statistics.userTime;
  const std::uint64_t totalDelta = systemTotal - previous_.systemTotal;
  const std::uint64_t idleDelta = statistics.idleTime - previous_.systemIdle;
  previous_.systemTotal = systemTotal;
  previous_.systemIdle = statistics.idleTime;
  if (totalDelta == 0) {
    return std::nullopt;
  }
  PerformanceRecord& record = report.record;
  record.totalCpu = static_cast<std::int64_t>((totalDelta - idleDelta) * 100 / totalDelta);
  const std::uint64_t processDelta = (statistics.processKernelTime + statistics.processUserTime) -
                                     (previous_.processKernel + previous_.processUser);
  record.cpu = static_cast<std::int64_t>(processDelta * 100 / totalDelta);
  // The three sizes are recorded in 32 bits, whatever is lost.
  report.workingSet = statistics.workingSet;
  record.workingSet = static_cast<std::uint32_t>(statistics.workingSet);
  record.privateBytes = static_cast<std::uint32_t>(statistics.privateBytes);
  const std::uint64_t committed = statistics.commitTotal - statistics.commitAvailable;
  record.virtualSize = static_cast<std::uint32_t>(committed);
  if (statistics.commitTotal != 0) {
    report.commitPercent = static_cast<std::uint32_t>(committed * 100 / statistics.commitTotal);
  }
  record.kernelTime = statistics.processKernelTime;
  record.userTime = statistics.processUserTime;
  record.date = MillisecondsOf(report.time);
  record.handleCount = statistics.handleCount;
  record.restart = restartMonitor_.GetState();
  {
    const std::lock_guard countersGuard(countersLock_);
    record.bufferFull = counters_.pins.GetCounts();
    record.numResync = counters_.resync;
    record.numTsDiscontinuity = counters_.tsDiscontinuity;
    record.numDecPictures = counters_.decodedPictures;
    record.numPoliticChoices = counters_.politicChoices;
  }
  for (const auto& [name, count] : record.bufferFull) {
    record.numBufferFull += static_cast<std::uint32_t>(count);
  }
  report.politicChoicesPerSecond =
      static_cast<std::int32_t>((record.numPoliticChoices - previous_.politicChoices) * 1000) /
      static_cast<std::int32_t>(options_.reportPeriod);
  previous_.processKernel = statistics.processKernelTime;
  previous_.processUser = statistics.processUserTime;
  previous_.politicChoices = record.numPoliticChoices;
  return report;
}

void LogPerf::WriteReport() {
  const std::optional<Report> report = CompileReport();
  if (!report) {
    return;
  }
  sinks_.WithObserver([&](IPerfObserver& observer) {
    observer.OnReport(static_cast<std::uint32_t>(report->record.cpu), report->commitPercent,
                      report->workingSet, report->politicChoicesPerSecond);
  });
  sinks_.WithPerformanceSink([&](ILogSink& sink, bool isFirst) {
    const std::string line = isFirst ? FormatPerformanceHeader(report->record.bufferFull)
                                     : FormatPerformanceLine(report->record);
    sink.Write(kInfo, report->time, line.c_str());
  });
}

}  // namespace qorp::log
