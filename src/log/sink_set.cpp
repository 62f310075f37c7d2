#include "log/sink_set.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/os/debugger_output.h"

namespace qorp::log {
namespace {

// The set whose members this thread is calling.
thread_local const SinkSet* usedByThisThread = nullptr;

}  // namespace

// The members as they stand, for the length of a call.
class SinkSet::Use {
 public:
  explicit Use(SinkSet& set) : set_(set), outer_(std::exchange(usedByThisThread, &set)) {
    const os::MutexLock guard(set_.lock_);
    number_ = ++set_.usesBegun_;
    set_.usesInProgress_.push_back(number_);
    members_ = set_.members_;
  }
  ~Use() {
    usedByThisThread = outer_;
    const os::MutexLock guard(set_.lock_);
    std::erase(set_.usesInProgress_, number_);
    set_.useEnded_.NotifyAll();
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  const Members* operator->() const { return members_.get(); }

 private:
  SinkSet& set_;
  const SinkSet* const outer_;
  std::uint64_t number_;
  std::shared_ptr<const Members> members_;
};

void SinkSet::Change(const std::function<void(Members&)>& change, Until until) {
  const os::MutexLock guard(lock_);
  auto next = std::make_shared<Members>(*members_);
  change(*next);
  members_ = std::move(next);
  if (until == Until::kUnused && usedByThisThread != this) {
    // Uses begin in ascending order.
    const std::uint64_t last = usesBegun_;
    while (!usesInProgress_.empty() && usesInProgress_.front() <= last) {
      useEnded_.Wait(lock_);
    }
  }
}

void SinkSet::Add(ILogSink* sink) {
  Change([&](Members& members) { members.sinks.insert(sink); }, Until::kAtOnce);
}

void SinkSet::Remove(ILogSink* sink) {
  Change([&](Members& members) { members.sinks.erase(sink); }, Until::kUnused);
}

void SinkSet::SetPerformanceSink(ILogSink* sink) {
  Change(
      [&](Members& members) {
        members.performance = sink != nullptr ? std::make_shared<PerformanceSink>(sink) : nullptr;
      },
      Until::kUnused);
}

void SinkSet::SetObserver(IPerfObserver* observer) {
  Change([&](Members& members) { members.observer = observer; }, Until::kUnused);
}

template <typename Call>
void SinkSet::CallGuarded(const void* member, Call call) {
  std::string failure;
  try {
    call();
    return;
  } catch (const std::exception& error) {
    failure = error.what();
  } catch (...) {
    failure = "unknown failure";
  }
  {
    // A failure that lasts is reported once, not for every message.
    const os::MutexLock guard(lock_);
    if (std::exchange(lastFailures_[member], failure) == failure) {
      return;
    }
  }
  os::WriteDebuggerOutput("Log sink failed: " + failure + "\n");
}

void SinkSet::Dispatch(const LogMessage& message) {
  const Use members(*this);
  for (ILogSink* const sink : members->sinks) {
    CallGuarded(sink, [&] { sink->Write(message.level, message.time, message.text.c_str()); });
  }
}

void SinkSet::WithObserver(const std::function<void(IPerfObserver&)>& operation) {
  const Use members(*this);
  if (members->observer != nullptr) {
    CallGuarded(members->observer, [&] { operation(*members->observer); });
  }
}

void SinkSet::WithPerformanceSink(const std::function<void(ILogSink&, bool isFirst)>& operation) {
  const Use members(*this);
  if (PerformanceSink* const performance = members->performance.get(); performance != nullptr) {
    CallGuarded(performance->sink, [&] {
      const bool isFirst = performance->isFirst.exchange(false);
      try {
        operation(*performance->sink, isFirst);
      } catch (...) {
        performance->isFirst = isFirst || performance->isFirst;
        throw;
      }
    });
  }
}

}  // namespace qorp::log
