#include "log/log_perf.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <utility>

#include "log/format_buffer.h"
#include "platform/os/debugger_output.h"

namespace qorp::log {
namespace {

constexpr std::size_t kLongestMessage = 1040;

// Makes one line of length characters: the length that is left.
std::size_t CleanLine(char* text, std::size_t length) {
  char* const end = text + length;
  std::replace(text, end, '\n', ' ');
  return static_cast<std::size_t>(std::remove(text, end, '\r') - text);
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
  worker_ = std::make_unique<Thread>([this] { Work(); }, "logger");
}

void LogPerf::Stop() {
  if (worker_ != nullptr) {
    stopEvent_.Set();
    worker_->Handle().Wait(os::kInfinite);
    worker_.reset();
  }
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

void LogPerf::Work() {
  const std::array<os::Waitable*, 2> signals{&stopEvent_, &queue_.Added()};
  std::uint32_t lastReport = clock_.Ticks();
  while (true) {
    const std::uint32_t elapsed = clock_.Ticks() - lastReport;
    const std::uint32_t left =
        elapsed < options_.reportPeriod ? options_.reportPeriod - elapsed : 0;
    switch (clock_.WaitAny(signals, left)) {
      case 1:
        if (const std::optional<LogMessage> message = queue_.Pop()) {
          sinks_.Dispatch(*message);
        }
        break;
      case os::kWaitTimeout:
        lastReport = clock_.Ticks();
        MakePeriodicReport();
        break;
      default:  // the stop event
        DispatchAll();
        return;
    }
  }
}

void LogPerf::DispatchAll() {
  while (const std::optional<LogMessage> message = queue_.Pop()) {
    queue_.Added().Wait(0);
    sinks_.Dispatch(*message);
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
