// IBufferFullNotifier: where output pins tell that the buffer downstream was full.
#pragma once

namespace qorp::log::i_buffer_full_notifier::v0 {

// Called from streaming threads. The order of the operations is part of the interface.
class IBufferFullNotifier {
 public:
  virtual void RegisterPin(const char* pinName) = 0;
  // Once for each time that the pin found its downstream buffer full.
  virtual void NotifyBufferFull(const char* pinName) = 0;
  virtual ~IBufferFullNotifier() = default;
};

}  // namespace qorp::log::i_buffer_full_notifier::v0

namespace qorp::log {

using i_buffer_full_notifier::v0::IBufferFullNotifier;

}  // namespace qorp::log
