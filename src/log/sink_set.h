// SinkSet: who receives messages and reports.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "log/i_log_sink.h"
#include "log/message_queue.h"
#include "platform/os/mutex.h"

namespace qorp::log {

// Owned by a logger; owns none of its members. Any thread changes it while the logger runs.
//
// A member is called without a lock held, so a change does not stop a call in progress: it takes
// effect from the next message. Taking something out therefore returns only when no call that might
// still use it is in progress, and it may be destroyed then; the one exception is a change that a
// member makes from within its own call. Who takes out a member must not hold a lock that the
// member waits for.
class SinkSet {
 public:
  void Add(ILogSink* sink);
  void Remove(ILogSink* sink);
  // Null for none.
  void SetPerformanceSink(ILogSink* sink);
  void SetObserver(IPerfObserver* observer);

  // Hands a message to every sink, in the order of their addresses.
  void Dispatch(const LogMessage& message);
  // Call the operation with the observer or the performance sink, if there is one; isFirst until
  // a call with it has returned, and again for a sink that is set again.
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
  // Never changed, only replaced; a use keeps its own.
  std::shared_ptr<const Members> members_ GUARDED_BY(lock_) = std::make_shared<Members>();
  std::uint64_t usesBegun_ GUARDED_BY(lock_) = 0;
  // The numbers with which they began.
  std::vector<std::uint64_t> usesInProgress_ GUARDED_BY(lock_);
  os::ConditionVariable useEnded_;
  std::map<const void*, std::string> lastFailures_ GUARDED_BY(lock_);  // by member
};

}  // namespace qorp::log
