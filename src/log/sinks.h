// The sinks that keep nothing: console, output stream and syslog server (log files:
// log_file.h); and SinkSet, the sinks of one logger.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "log/log_line.h"
#include "platform/os/console.h"
#include "platform/os/mutex.h"
#include "platform/os/sockets.h"

namespace qorp::log {

// Lines "Mon Nov 16 09:43:14.123 text" in the colour of their level: 0 bright red, 1 bright yellow,
// 2 light grey, 3 bright green. Without colour where the console has none.
class console_sink final : public ILogSink {
 public:
  // Messages of a greater level are left out. Writes to the standard error stream.
  explicit console_sink(std::int32_t maxLevel) : maxLevel_(maxLevel) {}
  // Writes to another open descriptor, not owned.
  console_sink(std::int32_t maxLevel, int descriptor) : maxLevel_(maxLevel), console_(descriptor) {}

  // Writes to a stream, not owned, in colour or not.
  console_sink(std::int32_t maxLevel, std::ostream& stream, bool colour)
      : maxLevel_(maxLevel), console_(stream, colour) {}

  void SetMaxLevel(std::int32_t maxLevel);
  void Write(std::int32_t level, const LogTime& time, const char* text) override;

 private:
  os::Mutex lock_;
  std::int32_t maxLevel_ GUARDED_BY(lock_);
  os::Console console_ GUARDED_BY(lock_);
};

// Lines "[Level 1] Mon Nov 16 09:43:14.123 text" of every level, each flushed. The stream is not
// owned and outlives the sink; the sink has no lock.
class ostream_sink final : public ILogSink {
 public:
  explicit ostream_sink(std::ostream& stream) : stream_(stream) {}

  void Write(std::int32_t level, const LogTime& time, const char* text) override;

 private:
  std::ostream& stream_;
};

// One datagram for each message, of every level:
//
//   <132>Nov 16 09:43:14 encoder01 0042 text NUL
//
// 132 is 128 (facility local 0) and the severity: 3, 4, 6, 7 for levels 0 to 3. The time is the
// local one, its day padded with a blank. The number counts from 0000 to 9999 and starts again.
// A line of more than 1024 characters, without the NUL, is cut. Delivery is not confirmed.
class syslog_sink final : public ILogSink {
 public:
  // An invalid socket sends nothing.
  syslog_sink(os::DatagramSocket socket, std::string hostName);

  void Write(std::int32_t level, const LogTime& time, const char* text) override;

 private:
  os::Mutex lock_;
  const os::DatagramSocket socket_;
  const std::string hostName_;
  int sequenceNumber_ GUARDED_BY(lock_) = 0;
};

// Owned by a logger; owns none of its members. Any thread changes it while the logger runs.
//
// A member is called without a lock held, so a change does not stop a call in progress: it takes
// effect from the next message. A removal therefore returns only when no call that might still use
// the member is in progress, so that the member may then be destroyed; the one exception is a
// change that a member makes from within its own call. The caller of a removal must not hold a lock
// that the member waits for.
class SinkSet {
 public:
  void Add(ILogSink* sink);
  void Remove(ILogSink* sink);
  // Null for none.
  void SetPerformanceSink(ILogSink* sink);
  void SetObserver(IPerfObserver* observer);

  // Hands a message to every sink, in the order of their addresses.
  void Dispatch(const LogMessage& message);
  // Call the operation with the observer or the performance sink, if there is one; isFirst is true
  // until a call has returned without an exception, and again for a sink that is set again.
  void WithObserver(const std::function<void(IPerfObserver&)>& operation);
  void WithPerformanceSink(const std::function<void(ILogSink&, bool isFirst)>& operation);

 private:
  struct PerformanceSink {
    explicit PerformanceSink(ILogSink* member) : sink(member) {}

    ILogSink* const sink;
    std::atomic<bool> isFirst{true};
  };
  struct Members {
    std::set<ILogSink*> sinks;
    std::shared_ptr<PerformanceSink> performance;
    IPerfObserver* observer = nullptr;
  };
  class Use;

  enum class Until { kAtOnce, kUnused };
  // kUnused waits until no use has the former members.
  void Change(const std::function<void(Members&)>& change, Until until);
  template <typename Call>
  void CallGuarded(const void* member, Call call);

  os::Mutex lock_;
  // Never changed, only replaced; a use keeps the members that it began with.
  std::shared_ptr<const Members> members_ GUARDED_BY(lock_) = std::make_shared<Members>();
  std::uint64_t usesBegun_ GUARDED_BY(lock_) = 0;
  // Their numbers, in ascending order.
  std::vector<std::uint64_t> usesInProgress_ GUARDED_BY(lock_);
  os::ConditionVariable useEnded_;
  std::map<const void*, std::string> lastFailures_ GUARDED_BY(lock_);  // by member
};

}  // namespace qorp::log
