#include "log/log_perf.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "log/format_buffer.h"
#include "platform/os/debugger_output.h"

namespace qorp::log {
namespace {

constexpr std::size_t kLongestMessage = 1040;

// Messages come in bursts, and waking a sleeping worker costs a caller more than all the rest of a
// log() call. So the worker looks around for some microseconds before it sleeps.
constexpr int kLooksBeforeSleep = 50;

// Makes one line of length characters: the length that is left.
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
  FormatBuffer<kLongestMessage> buffer;
  const std::lock_guard guard(formattingLock_);
  const LogTime time = clock_.Now();
  va_list arguments;
  va_start(arguments, format);
  const std::size_t length = buffer.Format(format, arguments);
  va_end(arguments);
  queue_.Push(level, {buffer.Data(), CleanLine(buffer.Data(), length)}, time);
}

std::uint32_t LogPerf::WaitForWork(std::uint32_t lastReport) {
  const std::array<os::Waitable*, 2> signals{&stopEvent_, &queue_};
  for (int look = 0; look < kLooksBeforeSleep; ++look) {
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
    // The next report is another try; the messages matter more.
    os::WriteDebuggerOutput(std::string("Performance report failed: ") + failure.what() + "\n");
  }
}

}  // namespace qorp::log
