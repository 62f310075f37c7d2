#include "log/log_perf.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "log/performance.h"
#include "platform/os/console.h"

namespace qorp::log {

namespace {

// Room for Size characters; longer texts are cut to it.
template <std::size_t Size>
class FormatBuffer {
 public:
  // Returns the length of the text in the buffer. When formatting fails, the format itself is the
  // text, so that the message is not lost.
  [[gnu::format(printf, 2, 0)]] std::size_t Format(const char* format, va_list arguments) {
    const int length = std::vsnprintf(text_.data(), text_.size(), format, arguments);
    if (length < 0) {
      return std::string_view(format).copy(text_.data(), Size);
    }
    return std::min(static_cast<std::size_t>(length), Size);
  }

  char* Data() { return text_.data(); }

 private:
  std::array<char, Size + 1> text_;
};

}  // namespace

void DummyLogPerf::log(std::int32_t, const char* format, ...) {
  FormatBuffer<260> buffer;
  va_list arguments;
  va_start(arguments, format);
  const std::size_t length = buffer.Format(format, arguments);
  va_end(arguments);
  os::WriteDebuggerOutput({buffer.Data(), length});
  os::WriteDebuggerOutput("\n");
}

namespace {

constexpr std::size_t kMaxMessage = 1040;

// Messages come in bursts, and waking a sleeping worker costs a caller more than all the rest of a
// log() call. So the worker polls for some microseconds before it sleeps.
constexpr int kPollsBeforeSleep = 50;

// Makes the text one line; returns the length that is left.
std::size_t CleanLine(char* text, std::size_t length) {
  char* const end = text + length;
  if (std::memchr(text, '\n', length) != nullptr) {
    std::replace(text, end, '\n', ' ');
  }
  if (std::memchr(text, '\r', length) != nullptr) {
    return static_cast<std::size_t>(std::remove(text, end, '\r') - text);
  }
  return length;
}

}  // namespace

void MessageQueue::Push(std::int32_t level, std::string_view text, const LogTime& time) {
  const os::MutexLock guard(signal_.Lock());
  if (overflowed_) {
    return;
  }
  const bool full = messages_.size() >= kCapacity;
  if (spare_.empty()) {
    spare_.emplace_back();
  }
  LogMessage& message = spare_.front();
  message.level = full ? kError : level;
  message.text = full ? "Overflowed message queue." : text;
  message.time = time;  // the notice has that of the refused message
  messages_.splice(messages_.end(), spare_, spare_.begin());
  overflowed_ = full;
  signal_.Set(true);
}

bool MessageQueue::Pop(Popped& message) {
  const os::MutexLock guard(signal_.Lock());
  spare_.splice(spare_.begin(), message.node_);
  if (messages_.empty()) {
    return false;
  }
  message.node_.splice(message.node_.begin(), messages_, messages_.begin());
  overflowed_ = overflowed_ && !messages_.empty();
  signal_.Set(!messages_.empty());
  return true;
}

LogPerf::LogPerf(LogPerfOptions options)
    : options_(std::move(options)), clock_(*options_.clock), restartMonitor_(options_.restart) {
  if (options_.reportPeriod < 1 || options_.reportPeriod > 0x7FFFFFFF) {
    throw std::invalid_argument("the report period must be 1 to 2147483647 ms");
  }
}

LogPerf::~LogPerf() {
  Stop();
}

void LogPerf::Start() {
  if (worker_ != nullptr) {
    throw std::logic_error("the logger is running already");
  }
  stopEvent_.Clear();
  worker_ = std::make_unique<Thread>([this, start = clock_.Ticks()] { Work(start); }, "logger");
}

void LogPerf::Stop() {
  StopWithin(os::kInfinite);
}

bool LogPerf::StopWithin(std::uint32_t limit) {
  if (worker_ != nullptr) {
    stopEvent_.Set();
    if (!worker_->Handle().Wait(limit)) {
      return false;
    }
    worker_.reset();
  }
  return true;
}

void LogPerf::AddSink(ILogSink* sink) {
  sinks_.Add(sink);
}

void LogPerf::RemoveSink(ILogSink* sink) {
  sinks_.Remove(sink);
}

void LogPerf::SetPerformanceSink(ILogSink* sink) {
  sinks_.SetPerformanceSink(sink);
}

void LogPerf::SetObserver(IPerfObserver* observer) {
  sinks_.SetObserver(observer);
}

void LogPerf::log(std::int32_t level, const char* format, ...) {
  FormatBuffer<kMaxMessage> buffer;
  const os::MutexLock guard(formattingLock_);
  const LogTime time = clock_.Now();
  va_list arguments;
  va_start(arguments, format);
  const std::size_t length = buffer.Format(format, arguments);
  va_end(arguments);
  queue_.Push(level, {buffer.Data(), CleanLine(buffer.Data(), length)}, time);
}

std::uint32_t LogPerf::WaitForWork(std::uint32_t lastReport) {
  const std::array<os::Waitable*, 2> signals{&stopEvent_, &queue_};
  for (int poll = 0; poll < kPollsBeforeSleep; ++poll) {
    if (const std::uint32_t signalled = os::WaitAny(signals, 0); signalled != os::kWaitTimeout) {
      return signalled;
    }
    std::this_thread::yield();
  }
  return clock_.WaitAny(signals, lastReport, options_.reportPeriod);
}

void LogPerf::Work(std::uint32_t lastReport) {
  MessageQueue::Popped message;
  while (true) {
    switch (WaitForWork(lastReport)) {
      case 1:
        if (queue_.Pop(message)) {
          sinks_.Dispatch(*message);
        }
        break;
      case os::kWaitTimeout:
        lastReport = clock_.Ticks();
        MakePeriodicReport();
        break;
      default:  // the stop event
        while (queue_.Pop(message)) {
          sinks_.Dispatch(*message);
        }
        return;
    }
  }
}

void LogPerf::MakePeriodicReport() {
  restartMonitor_.Tick();
  try {
    WriteReport();
  } catch (const std::exception& failure) {
    // The next report tries again; the worker must continue to write messages.
    os::WriteDebuggerOutput(std::string("Performance report failed: ") + failure.what() + "\n");
  }
}

void LogPerf::RegisterPin(const char* pinName) {
  const os::MutexLock guard(countersLock_);
  counters_.pins.Register(pinName, clock_.Ticks());
}

void LogPerf::NotifyBufferFull(const char* pinName) {
  restartMonitor_.CountBufferFull();
  const os::MutexLock guard(countersLock_);
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
  const os::MutexLock guard(countersLock_);
  ++counters_.resync;
}

void LogPerf::IncrementTsDiscontinuity() {
  const os::MutexLock guard(countersLock_);
  ++counters_.tsDiscontinuity;
}

void LogPerf::IncrementDecodedPictures() {
  const os::MutexLock guard(countersLock_);
  ++counters_.decodedPictures;
}

void LogPerf::AddPoliticChoices(std::int32_t count) {
  const os::MutexLock guard(countersLock_);
  counters_.politicChoices += static_cast<std::uint32_t>(count);
}

// The content of a report: the record, and what only the observer is given.
struct LogPerf::Report {
  LogTime time;
  PerformanceRecord record;
  std::uint32_t commitPercent = 0;
  std::uint64_t workingSet = 0;  // bytes, in full
  std::int32_t politicChoicesPerSecond = 0;
};

// None when the system's times have not advanced since the last report.
std::optional<LogPerf::Report> LogPerf::CompileReport() {
  const os::MutexLock guard(reportLock_);
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
  // The three sizes are recorded modulo 2^32.
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
    const os::MutexLock countersGuard(countersLock_);
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
