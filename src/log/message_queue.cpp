#include "log/message_queue.h"

#include "log/i_log_perf.h"

namespace qorp::log {

void MessageQueue::Push(std::int32_t level, std::string_view text, const LogTime& time) {
  const os::MutexLock guard(signal_.Lock());
  if (overflowed_) {
    return;
  }
  const bool full = messages_.size() >= kCapacity;
  if (spare_.empty()) {
    spare_.emplace_back();
  }
  LogMessage& message = spare_.front();
  message.level = full ? kError : level;
  message.text = full ? "Overflowed message queue." : text;
  message.time = time;  // the refused message's is the current time
  messages_.splice(messages_.end(), spare_, spare_.begin());
  overflowed_ = full;
  signal_.Set(true);
}

bool MessageQueue::Pop(Popped& message) {
  const os::MutexLock guard(signal_.Lock());
  spare_.splice(spare_.begin(), message.node_);
  if (messages_.empty()) {
    return false;
  }
  message.node_.splice(message.node_.begin(), messages_, messages_.begin());
  overflowed_ = overflowed_ && !messages_.empty();
  signal_.Set(!messages_.empty());
  return true;
}

}  // namespace qorp::log
