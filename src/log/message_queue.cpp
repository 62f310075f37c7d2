#include "log/message_queue.h"

#include <utility>

#include "log/levels.h"

namespace qorp::log {

void MessageQueue::Push(std::int32_t level, std::string_view text, const LogTime& time) {
  {
    const std::lock_guard guard(lock_);
    if (overflowed_) {
      return;
    }
    if (messages_.size() < kCapacity) {
      messages_.push_back({level, std::string(text), time});
    } else {
      // The time of the refused message is the current one.
      messages_.push_back({kError, "Overflowed message queue.", time});
      overflowed_ = true;
    }
  }
  added_.Release();
}

std::optional<LogMessage> MessageQueue::Pop() {
  std::list<LogMessage> oldest;  // freed after the lock
  const std::lock_guard guard(lock_);
  if (messages_.empty()) {
    return std::nullopt;
  }
  oldest.splice(oldest.begin(), messages_, messages_.begin());
  if (messages_.empty()) {
    overflowed_ = false;
  }
  return std::move(oldest.front());
}

}  // namespace qorp::log
