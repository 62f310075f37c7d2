// MessageQueue: messages on their way from the callers to the logger's worker.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "log/log_time.h"
#include "platform/os/semaphore.h"

namespace qorp::log {

struct LogMessage {
  std::int32_t level = 0;
  std::string text;
  LogTime time;
};

// Owned by a logger. Any thread pushes, never waiting for the worker; the worker alone pops.
//
// The queue is bounded. The message that finds it full is replaced by one notice, and everything
// after it is dropped until the worker has emptied the queue: one notice stands for all that one
// episode lost.
class MessageQueue {
 public:
  static constexpr std::size_t kCapacity = 1000;  // the notice comes on top

  // Throws std::bad_alloc without memory.
  void Push(std::int32_t level, std::string_view text, const LogTime& time);
  // The oldest message; nothing when there is none.
  std::optional<LogMessage> Pop();

  // Released once for each message that was added.
  os::Semaphore& Added() { return added_; }

 private:
  std::mutex lock_;
  std::list<LogMessage> messages_;  // oldest first; guarded by lock_
  bool overflowed_ = false;         // guarded by lock_
  os::Semaphore added_{0};
};

}  // namespace qorp::log
