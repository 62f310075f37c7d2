#include "log/sinks.h"

#include <algorithm>
#include <array>
#include <exception>
#include <string>
#include <utility>

#include "log/log_line.h"
#include "platform/os/console.h"
#include "util/text_codecs.h"

namespace qorp::log {
namespace {

constexpr std::array<std::uint16_t, 4> kColours{12, 14, 7, 10};

// Other levels look like the nearest of the four.
std::uint16_t ColourOf(std::int32_t level) {
  return kColours[static_cast<std::size_t>(std::clamp(level, 0, 3))];
}

}  // namespace

void console_sink::SetMaxLevel(std::int32_t maxLevel) {
  const os::MutexLock guard(lock_);
  maxLevel_ = maxLevel;
}

void console_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  const os::MutexLock guard(lock_);
  if (level <= maxLevel_) {
    console_.WriteLine(ColourOf(level), FormatLogTime(time) + " " + text);
  }
}

void ostream_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  stream_ << FormatPlainLine(level, FormatLogTime(time), text) << std::endl;
}

namespace {

constexpr std::array<int, 4> kSeverities{3, 4, 6, 7};
constexpr int kFacilityLocal0 = 16 * 8;
constexpr std::array kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::size_t kMaxSyslogLine = 1024;

}  // namespace

syslog_sink::syslog_sink(os::DatagramSocket socket, std::string hostName)
    : socket_(std::move(socket)), hostName_(std::move(hostName)) {}

void syslog_sink::Write(std::int32_t level, const LogTime& time, const char* text) {
  const os::MutexLock guard(lock_);
  if (!socket_.IsValid()) {
    return;
  }
  // Levels beyond the four are as severe as the nearest.
  const int priority =
      kFacilityLocal0 + kSeverities[static_cast<std::size_t>(std::clamp(level, 0, 3))];
  const os::LocalTime local = os::ToLocalTime(time.seconds);
  std::string line =
      StringFormat("<%d>%s %2d %02d:%02d:%02d %s %04d ", priority,
                   kMonths[static_cast<std::size_t>(local.month - 1)], local.day, local.hour,
                   local.minute, local.second, hostName_.c_str(), sequenceNumber_);
  line += text;
  line.resize(std::min(line.size(), kMaxSyslogLine));
  line += '\0';
  socket_.Send(line);
  sequenceNumber_ = (sequenceNumber_ + 1) % 10000;
}

namespace {

// The set whose members this thread is calling.
thread_local const SinkSet* usedByThisThread = nullptr;

}  // namespace

// The present members, for the length of a call.
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
    // A repeated failure is reported once, not for every message.
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
