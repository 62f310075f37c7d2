// LogPerf, the asynchronous logger and performance reporter, and DummyLogPerf, the logger that
// every composer filter starts with.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "log/i_log_perf.h"
#include "log/log_line.h"
#include "log/performance.h"
#include "log/sinks.h"
#include "platform/os/mutex.h"
#include "platform/os/process.h"
#include "platform/os/thread.h"
#include "util/thread.h"

namespace qorp::log {

// Sends every message, whatever its level, to the debugger output; the rest does nothing. Without
// state: any thread, no lock.
class DummyLogPerf : public ILogPerf {
 public:
  // A text of more than 260 characters is cut. The line end is a write of its own: the lines of two
  // threads may interleave before it.
  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override;
  void WriteReport() override {}
  void IncrementResync() override {}
  void IncrementTsDiscontinuity() override {}
  void IncrementDecodedPictures() override {}
  void AddPoliticChoices(std::int32_t) override {}
  void RegisterPin(const char*) override {}
  void NotifyBufferFull(const char*) override {}
};

// The queue from the callers to the logger's worker. Any thread pushes, never waiting for the
// worker; the worker alone pops.
//
// The queue is bounded. A message that finds it full is replaced by one notice, and all further
// messages are dropped until the worker has emptied the queue. Elements are reused, so that pushing
// and popping allocate nothing in the long run.
//
// Signalled while it holds a message; a wait consumes nothing, Pop does.
class MessageQueue final : public os::Waitable {
 public:
  static constexpr std::size_t kCapacity = 1000;  // without the notice

  // A message taken by the worker; its memory is reused for later messages.
  class Popped {
   public:
    const LogMessage& operator*() const { return node_.front(); }
    const LogMessage* operator->() const { return &node_.front(); }

   private:
    friend class MessageQueue;
    std::list<LogMessage> node_;
  };

  // Throws std::bad_alloc without memory.
  void Push(std::int32_t level, std::string_view text, const LogTime& time);
  // Replaces message by the oldest one; false when there is none.
  bool Pop(Popped& message);

 private:
  bool TryTake() override { return signal_.MaySucceed(); }
  Signal& GetSignal() override { return signal_; }

  Signal signal_;
  std::list<LogMessage> messages_ GUARDED_BY(signal_.Lock());  // oldest first
  std::list<LogMessage> spare_ GUARDED_BY(signal_.Lock());     // popped, for reuse
  bool overflowed_ GUARDED_BY(signal_.Lock()) = false;
};

struct LogPerfOptions {
  std::uint32_t reportPeriod = 10000;       // ms between performance reports, 1 to 2^31 - 1
  std::int32_t bufferFullLevel = kWarning;  // of the lines about full buffers
  RestartMonitor::Rule restart;             // ticks once for each periodic report
  // Replaced in tests.
  std::shared_ptr<LogClock> clock = std::make_shared<LogClock>();
  std::function<os::SystemStatistics()> readStatistics = os::ReadSystemStatistics;
};

// Owned by the host, which hands it to its components as ILogPerf; sinks and observer belong to the
// host, too. log() takes the timestamp and formats on the caller's thread and puts the message into
// a bounded queue; one worker thread hands the messages to the sinks and makes the periodic report.
// A caller never waits for the worker, however slow a sink is.
//
// Threads: any thread logs, counts, adds and removes sinks; the owner starts and stops. Locks, in
// the order in which they may be taken: reportLock_ (what a report compares with), countersLock_
// (the counters and the pin table; log() may be called under it), formattingLock_ (the whole of
// log(), so that the order in the queue is that of the timestamps), the queue's own. Sinks and
// observer are called with no lock held.
class LogPerf final : public ILogPerf {
 public:
  // Throws std::invalid_argument for a report period out of its range, std::system_error when the
  // system refuses a kernel object.
  explicit LogPerf(LogPerfOptions options = {});
  // Stops the logger.
  ~LogPerf() override;

  // Starts the worker; messages may wait already. Throws std::logic_error when it runs,
  // std::system_error when the system refuses a thread.
  void Start();
  // Returns when everything logged before has been handed to the sinks and the worker has ended;
  // does nothing when it does not run. Messages logged later wait for the next Start, or are lost.
  // Not from a sink.
  void Stop();
  // The same, waiting limit ms at most. False when a sink blocks the worker for longer: the worker
  // still runs, and uses this object and its sinks once that call returns.
  bool StopWithin(std::uint32_t limit);

  // Takes effect from the next message.
  void AddSink(ILogSink* sink);
  // When it returns, the sink is not called any more and may be destroyed; waits for a call in
  // progress unless called from within it.
  void RemoveSink(ILogSink* sink);
  // Where performance records go; null for nowhere. The first report after this is the header.
  // Waits as RemoveSink does for calls of the former one.
  void SetPerformanceSink(ILogSink* sink);
  void SetObserver(IPerfObserver* observer);

  // Text beyond 1040 characters is cut, line feeds become blanks, carriage returns are removed.
  // Throws std::bad_alloc without memory.
  [[gnu::format(printf, 3, 4)]] void log(std::int32_t level, const char* format, ...) override;

  void RegisterPin(const char* pinName) override;
  void NotifyBufferFull(const char* pinName) override;
  void IncrementResync() override;
  void IncrementTsDiscontinuity() override;
  void IncrementDecodedPictures() override;
  void AddPoliticChoices(std::int32_t count) override;
  // Makes a report now. Run by the worker once for each period.
  void WriteReport() override;

  // True once the outputs were found full for too long.
  bool NeedsRestart() const { return restartMonitor_.GetState().needRestart; }

 private:
  struct Counters {
    std::uint32_t resync = 0;
    std::uint32_t tsDiscontinuity = 0;
    std::uint64_t decodedPictures = 0;
    std::uint32_t politicChoices = 0;
    PinTable pins;
  };
  struct Report;
  struct PreviousReport {
    std::uint64_t systemTotal = 0;  // 100 ns units, as the other times
    std::uint64_t systemIdle = 0;
    std::uint64_t processKernel = 0;
    std::uint64_t processUser = 0;
    std::uint32_t politicChoices = 0;
  };

  // lastReport in ticks; the start counts as a report.
  void Work(std::uint32_t lastReport);
  // Waits for the stop event (0), a message (1) or the next report (kWaitTimeout).
  std::uint32_t WaitForWork(std::uint32_t lastReport);
  void MakePeriodicReport();
  std::optional<Report> CompileReport();

  const LogPerfOptions options_;
  LogClock& clock_;

  os::SpinThenBlockMutex formattingLock_;
  MessageQueue queue_;
  SinkSet sinks_;

  mutable os::Mutex countersLock_;
  Counters counters_ GUARDED_BY(countersLock_);
  RestartMonitor restartMonitor_;

  os::Mutex reportLock_;
  PreviousReport previous_ GUARDED_BY(reportLock_);

  os::Event stopEvent_{os::Event::Reset::kManual};
  std::unique_ptr<Thread> worker_;
};

}  // namespace qorp::log
