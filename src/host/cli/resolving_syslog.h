// ResolvingSyslog: messages for a syslog server whose name may not be known yet.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/config/wall.h"
#include "log/log_line.h"
#include "log/sinks.h"
#include "platform/os/mutex.h"
#include "platform/os/thread.h"

namespace host::cli {

// A sink that resolves the server's name on a thread of its own, again and again until that
// succeeds, with a growing delay of up to a minute. Until then the latest thousand messages wait.
// Addresses are used at once.
//
// Owned by the host; the logger's worker writes.
class ResolvingSyslog final : public qorp::log::ILogSink {
 public:
  using Report = std::function<void(const std::string& what)>;

  // Messages beyond maxLevel are left out. report is called once, on the resolving thread, when the
  // first try fails.
  ResolvingSyslog(config::Endpoint server, std::int32_t maxLevel, Report report);
  // A thread that waits for a name server is detached.
  ~ResolvingSyslog() override;
  ResolvingSyslog(const ResolvingSyslog&) = delete;
  ResolvingSyslog& operator=(const ResolvingSyslog&) = delete;

  void Write(std::int32_t level, const qorp::log::LogTime& time, const char* text) override;

 private:
  struct Message {
    std::int32_t level = 0;
    qorp::log::LogTime time;
    std::string text;
  };
  // Shared with the thread.
  struct State {
    config::Endpoint server;
    Report report;
    os::Mutex lock;
    os::ConditionVariable changed;
    bool stopped GUARDED_BY(lock) = false;
    std::deque<Message> waiting GUARDED_BY(lock);  // until there is a sink
    std::optional<qorp::log::syslog_sink> sink GUARDED_BY(lock);

    bool Resolve(std::string* failure);
    void ResolveUntilStopped();
  };

  const std::int32_t maxLevel_;
  const std::size_t room_;  // bytes of a message
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::unique_ptr<os::Thread> thread_;
};

}  // namespace host::cli
