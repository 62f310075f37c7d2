// A message's way from its caller to the logger's worker: FormatBuffer and MessageQueue.
#pragma once

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <list>
#include <string>
#include <string_view>

#include "log/log_line.h"
#include "platform/os/thread.h"

namespace qorp::log {

// Room for Size characters; longer texts are cut to it.
template <std::size_t Size>
class FormatBuffer {
 public:
  // The length of the text that stands in the buffer then. A format that cannot be carried out is
  // kept as its own text: the message is not lost.
  [[gnu::format(printf, 2, 0)]] std::size_t Format(const char* format, va_list arguments) {
    const int length = std::vsnprintf(text_.data(), text_.size(), format, arguments);
    if (length < 0) {
      return std::string_view(format).copy(text_.data(), Size);
    }
    return std::min(static_cast<std::size_t>(length), Size);
  }

  char* Data() { return text_.data(); }

 private:
  std::array<char, Size + 1> text_;
};

struct LogMessage {
  std::int32_t level = 0;
  std::string text;
  LogTime time;
};

// Owned by a logger. Any thread pushes, never waiting for the worker; the worker alone pops.
//
// The queue is bounded. The message that finds it full is replaced by one notice, and everything
// after it is dropped until the worker has emptied the queue: one notice stands for all that one
// episode lost. Its elements are made once and then go round, so that pushing and popping allocate
// nothing in the long run.
//
// Signalled while it holds a message; a wait consumes nothing, Pop does.
class MessageQueue final : public os::Waitable {
 public:
  static constexpr std::size_t kCapacity = 1000;  // the notice comes on top

  // A message in the worker's hands; its memory is used again for later messages.
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
  std::list<LogMessage> spare_ GUARDED_BY(signal_.Lock());     // were popped before
  bool overflowed_ GUARDED_BY(signal_.Lock()) = false;
};

}  // namespace qorp::log
